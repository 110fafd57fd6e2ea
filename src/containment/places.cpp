// Where this process's own groups are: its path in each hierarchy (from /proc/self/cgroup) under the
// mount that shows that hierarchy (from /proc/self/mountinfo). A mount may show only a part of its
// hierarchy (its root, as in a container), so a path counts only below the mount's root.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "containment/containment.h"

namespace {
// Where a line of mountinfo is longer than this (an overlay mount with many layers), it is no cgroup mount.
constexpr size_t kLineSize = 3 * PATH_MAX;

// This process's path in the hierarchies that matter here; "" when it isn't in one.
struct OwnPaths {
    char unified[PATH_MAX];
    char memory[PATH_MAX];
    char pids[PATH_MAX];
};

// Whether the comma-separated `list` holds `word`.
bool list_holds(const char* list, size_t length, const char* word) {
    size_t wordLength = strlen(word);
    for (const char* item = list; item < list + length;) {
        const char* end =
            static_cast<const char*>(memchr(item, ',', static_cast<size_t>(list + length - item)));
        if (end == nullptr) end = list + length;
        if (static_cast<size_t>(end - item) == wordLength && memcmp(item, word, wordLength) == 0) return true;
        item = end + 1;
    }
    return false;
}

// Whether the whitespace-separated `text` holds `word`.
bool words_hold(const char* text, const char* word) {
    size_t wordLength = strlen(word);
    for (const char* at = text; (at = strstr(at, word)) != nullptr; at += wordLength) {
        bool starts = at == text || at[-1] == ' ' || at[-1] == '\n';
        char after = at[wordLength];
        if (starts && (after == 0 || after == ' ' || after == '\n')) return true;
    }
    return false;
}

// Reads a line into `line`, without its newline; a line too long for it is skipped whole. False at the end.
bool read_line(FILE* file, char* line, size_t size, bool* whole) {
    if (fgets(line, static_cast<int>(size), file) == nullptr) return false;
    size_t length = strlen(line);
    *whole = true;
    if (length > 0 && line[length - 1] == '\n') {
        line[length - 1] = 0;
    } else if (!feof(file)) {
        *whole = false;
        int c;
        while ((c = fgetc(file)) != EOF && c != '\n') {
        }
    }
    return true;
}

// One "id:controllers:path" line of /proc/self/cgroup.
void take_cgroup_line(char* line, OwnPaths* own) {
    char* first = strchr(line, ':');
    char* second = first == nullptr ? nullptr : strchr(first + 1, ':');
    if (second == nullptr) return;
    const char* controllers = first + 1;
    size_t length = static_cast<size_t>(second - controllers);
    const char* path = second + 1;
    if (path[0] != '/') return;
    if (length == 0 && first - line == 1 && line[0] == '0') copy_bounded(own->unified, path, PATH_MAX);
    if (list_holds(controllers, length, "memory")) copy_bounded(own->memory, path, PATH_MAX);
    if (list_holds(controllers, length, "pids")) copy_bounded(own->pids, path, PATH_MAX);
}

int read_own_paths(const char* cgroupFile, OwnPaths* own) {
    FILE* file = fopen(cgroupFile, "re");
    if (file == nullptr) return errno;
    own->unified[0] = own->memory[0] = own->pids[0] = 0;
    char line[PATH_MAX + 256];
    bool whole;
    while (read_line(file, line, sizeof line, &whole))
        if (whole) take_cgroup_line(line, own);
    int err = ferror(file) ? EIO : 0;
    fclose(file);
    return err;
}

// Undoes mountinfo's octal escapes (\040 for a space and the like) in place.
void unescape(char* text) {
    char* out = text;
    for (const char* in = text; *in != 0; ++in) {
        if (in[0] == '\\' && in[1] >= '0' && in[1] <= '3' && in[2] >= '0' && in[2] <= '7' && in[3] >= '0' &&
            in[3] <= '7') {
            *out++ = static_cast<char>((in[1] - '0') * 64 + (in[2] - '0') * 8 + (in[3] - '0'));
            in += 3;
        } else {
            *out++ = *in;
        }
    }
    *out = 0;
}

// A cgroup mount from one mountinfo line: "id parent major:minor root mountpoint options [tags] - type source
// superoptions". False for any other line.
struct CgroupMount {
    char* root;
    char* point;
    bool unified;
    char* superOptions;
};
bool parse_mount(char* line, CgroupMount* mount) {
    char* fields[6] = {};
    char* save = nullptr;
    int count = 0;
    for (char* field = strtok_r(line, " ", &save); field != nullptr; field = strtok_r(nullptr, " ", &save)) {
        if (count < 5) {
            fields[count++] = field;
        } else if (strcmp(field, "-") == 0) {
            fields[5] = strtok_r(nullptr, " ", &save); // the type
            strtok_r(nullptr, " ", &save);             // the source
            mount->superOptions = strtok_r(nullptr, " ", &save);
            break;
        }
    }
    if (count < 5 || fields[5] == nullptr) return false;
    mount->unified = strcmp(fields[5], "cgroup2") == 0;
    if (!mount->unified && strcmp(fields[5], "cgroup") != 0) return false;
    if (mount->superOptions == nullptr) mount->superOptions = const_cast<char*>("");
    mount->root = fields[3];
    mount->point = fields[4];
    unescape(mount->root);
    unescape(mount->point);
    return true;
}

// The directory of `path` of a hierarchy under a mount of it: false when the mount doesn't show it.
bool directory_under(const CgroupMount& mount, const char* path, char (&directory)[PATH_MAX]) {
    size_t rootLength = strcmp(mount.root, "/") == 0 ? 0 : strlen(mount.root);
    if (strncmp(path, mount.root, rootLength) != 0) return false;
    const char* rest = path + rootLength;
    if (*rest != 0 && *rest != '/') return false; // "/a" is no root of "/ab"
    if (strcmp(rest, "/") == 0) rest = "";
    int length = snprintf(directory, PATH_MAX, "%s%s", mount.point, rest);
    return length > 0 && length < PATH_MAX;
}

bool writable(const char* directory) {
    return faccessat(AT_FDCWD, directory, W_OK, AT_EACCESS) == 0;
}

// The place of `path` under the mount, unless a place was found already or the mount doesn't show it.
void take_place(const CgroupMount& mount, const char* path, char (&place)[PATH_MAX], bool mustBeWritable) {
    if (place[0] != 0 || path[0] == 0) return;
    if (!directory_under(mount, path, place) || (mustBeWritable && !writable(place))) place[0] = 0;
}

// Fills the places of hierarchies found in mountinfo; the first mount that shows this process's group
// wins (for v2, the first where it can be written).
int read_mounts(const char* mountinfo, const OwnPaths& own, CgroupPlaces* places) {
    FILE* file = fopen(mountinfo, "re");
    if (file == nullptr) return errno;
    MallocPtr<char> line(static_cast<char*>(malloc(kLineSize)));
    if (line == nullptr) {
        fclose(file);
        return ENOMEM;
    }
    bool whole;
    while (read_line(file, line.get(), kLineSize, &whole)) {
        CgroupMount mount;
        if (!whole || !parse_mount(line.get(), &mount)) continue;
        size_t optionsLength = strlen(mount.superOptions);
        if (mount.unified) {
            take_place(mount, own.unified, places->unified, true);
        } else {
            if (list_holds(mount.superOptions, optionsLength, "memory"))
                take_place(mount, own.memory, places->memory, false);
            if (list_holds(mount.superOptions, optionsLength, "pids"))
                take_place(mount, own.pids, places->pids, false);
        }
    }
    int err = ferror(file) ? EIO : 0;
    fclose(file);
    return err;
}

// Whether the v2 group at `directory` hands `controller` to the groups below it.
bool hands_down(const char* directory, const char* controller) {
    char path[PATH_MAX + 32];
    snprintf(path, sizeof path, "%s/cgroup.subtree_control", directory);
    UniqueFd file(retry_on_eintr([&] { return open(path, O_RDONLY | O_CLOEXEC); }));
    if (file.get() < 0) return false;
    char text[1024];
    ssize_t length = retry_on_eintr([&] { return read(file.get(), text, sizeof text - 1); });
    if (length <= 0) return false;
    text[length] = 0;
    return words_hold(text, controller);
}

CgroupPlaces own_places;
int own_places_result = 0;
pthread_once_t own_places_once = PTHREAD_ONCE_INIT;
} // namespace

int find_cgroup_places(CgroupPlaces* places, const char* mountinfo, const char* cgroup) {
    OwnPaths own;
    int err = read_own_paths(cgroup, &own);
    if (err != 0) return err;
    CgroupPlaces found = {};
    err = read_mounts(mountinfo, own, &found);
    if (err != 0) return err;
    // A controller sits on one hierarchy only: v2 when the group hands it down, else its v1 mount.
    if (found.unified[0] != 0 && hands_down(found.unified, "memory")) {
        memcpy(found.memory, found.unified, sizeof found.memory);
        found.memoryUnified = true;
    }
    if (found.unified[0] != 0 && hands_down(found.unified, "pids")) {
        memcpy(found.pids, found.unified, sizeof found.pids);
        found.pidsUnified = true;
    }
    *places = found;
    return 0;
}

const CgroupPlaces* cgroup_places() {
    pthread_once(&own_places_once, [] { own_places_result = find_cgroup_places(&own_places); });
    return own_places_result == 0 ? &own_places : nullptr;
}
