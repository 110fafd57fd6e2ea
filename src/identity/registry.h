// One lookup in the user and group registry, for the services of the running process and for the
// identity of a new process alike.
#pragma once

#include <cerrno>
#include <cstring>

// A reentrant lookup (getpwnam_r and its kin) into a zero-filled entry and scratch buffer, repeated while
// a signal interrupts it. The entry found, or null with the lookup's error (its result, else errno).
template <typename Entry, typename Key>
Entry* registry_lookup(int (*call)(Key, Entry*, char*, size_t, Entry**), Key key, Entry* entry, char* scratch,
                       size_t size, int* err) {
    memset(entry, 0, sizeof *entry);
    memset(scratch, 0, size);
    Entry* result = nullptr;
    int returned;
    do {
        errno = 0;
        returned = call(key, entry, scratch, size, &result);
        *err = returned != 0 ? returned : errno;
    } while (returned != 0 && errno == EINTR);
    return result;
}
