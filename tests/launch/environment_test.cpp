#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

#include "launch/launch_internal.h"
#include "quillon/launch.h"
#include "support/seams.h"
#include "support/named_case.h"

namespace {
using quillon_test::CaseName, quillon_test::PrintTo;

struct KeyCase {
    const char* name;
    const char* entry;
    uint64_t size;
    std::string key;
};

class Keys : public testing::TestWithParam<KeyCase> {};

TEST_P(Keys, StopAtTheFirstEqualsOrTheLimit) {
    const KeyCase& c = GetParam();
    char buffer[16] = "untouched";
    GetKey(c.entry, buffer, c.size);
    EXPECT_EQ(std::string(buffer), c.key);
}

INSTANTIATE_TEST_SUITE_P(Entries, Keys,
                         testing::Values(KeyCase{"equalsInValue", "PATH=/a=b", 16, "PATH"},
                                         KeyCase{"noEquals", "NOVALUE", 16, "NOVALUE"},
                                         KeyCase{"emptyKey", "=x", 16, ""},
                                         KeyCase{"longKeyCut", "ABCDEFGH=1", 6, "ABCD"},
                                         KeyCase{"keyOneLongerThanRoom", "AB=1", 2, ""},
                                         KeyCase{"roomForTheNulOnly", "AB=1", 1, ""},
                                         KeyCase{"noRoom", "AB=1", 0, "untouched"},
                                         KeyCase{"noEntry", nullptr, 16, "untouched"}),
                         CaseName());

TEST(Keys, CompareWholeKeysWithoutCaseAndOrderNulls) {
    EXPECT_EQ(TestKeys("path=/a", "PATH"), 0);
    EXPECT_EQ(TestKeys("PATH", "Path=/b"), 0);
    EXPECT_NE(TestKeys("PATHX=/a", "PATH"), 0);
    EXPECT_EQ(TestKeys(nullptr, nullptr), 0);
    EXPECT_EQ(TestKeys(nullptr, "A"), 1);
    EXPECT_EQ(TestKeys("A", nullptr), -1);
    std::string common(1022, 'k');
    EXPECT_EQ(TestKeys((common + "X=1").c_str(), (common + "Y=2").c_str()), 0) << "only 1022 bytes count";
}

struct MergeCase {
    const char* name;
    std::vector<const char*> request;
    std::vector<const char*> inherited;
    const char* key;
    const char* merged; // null: not merged
};

class Merge : public testing::TestWithParam<MergeCase> {};

TEST_P(Merge, PutsTheRequestFirst) {
    MergeCase c = GetParam();
    c.request.push_back(nullptr);
    c.inherited.push_back(nullptr);
    char* merged = reinterpret_cast<char*>(1);
    EXPECT_EQ(GenerateAdditiveString(c.key, const_cast<char**>(c.request.data()),
                                     const_cast<char**>(c.inherited.data()), nullptr, &merged),
              1);
    if (c.merged == nullptr) {
        EXPECT_EQ(merged, nullptr);
    } else {
        ASSERT_NE(merged, nullptr);
        EXPECT_STREQ(merged, c.merged);
    }
    free(merged);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, Merge,
    testing::Values(MergeCase{"caseOfTheRequest", {"path=/a"}, {"PATH=/b"}, "path", "path=/a:/b"},
                    MergeCase{"requestOnly", {"PATH=/a"}, {"HOME=/"}, "PATH", nullptr},
                    MergeCase{"emptyRequestValue", {"PATH="}, {"PATH=/b"}, "PATH", "PATH=:/b"},
                    MergeCase{"emptyInheritedValue", {"PATH=/a"}, {"PATH="}, "PATH", "PATH=/a:"},
                    MergeCase{
                        "equalsKept", {"CLASSPATH=a=b"}, {"CLASSPATH=c"}, "CLASSPATH", "CLASSPATH=a=b:c"},
                    MergeCase{"entryWithoutValue", {"PATH"}, {"PATH=/b"}, "PATH", "PATH=/b"},
                    MergeCase{"firstMatchOnly", {"PATH=/a", "PATH=/c"}, {"PATH=/b"}, "PATH", "PATH=/a:/b"}),
    CaseName());

TEST(Merge, RefusesANullOutParameterAndReportsAFailedAllocation) {
    char* request[] = {const_cast<char*>("PATH=/a"), nullptr};
    char* inherited[] = {const_cast<char*>("PATH=/b"), nullptr};
    EXPECT_EQ(GenerateAdditiveString("PATH", request, inherited, nullptr, nullptr), 0);
    char* merged = nullptr;
    seams::malloc = {1, ENOMEM};
    EXPECT_EQ(GenerateAdditiveString("PATH", request, inherited, nullptr, &merged), 0);
    EXPECT_EQ(merged, nullptr);
}

// The environment of a new process, built from a small inherited one.
struct Built {
    bool ok;
    std::string entries;
};

// Keys that begin like another (LANGUAGE and LANG, PATHEXT and PATH) are other keys.
Built built_environment(std::vector<const char*> request) {
    char* inherited[] = {const_cast<char*>("PATH=/b"),    const_cast<char*>("KEEP=1"),
                         const_cast<char*>("GONE=1"),     const_cast<char*>("LANGUAGE=de"),
                         const_cast<char*>("PATHEXT=.x"), nullptr};
    char** saved = environ;
    environ = inherited;
    request.push_back(nullptr);
    LaunchRequest launch;
    launch.environment = const_cast<char**>(request.data());
    Built out{build_environment(&launch), ""};
    environ = saved;
    for (char** e = launch.envp; out.ok && *e != nullptr; ++e)
        out.entries += std::string(*e) + ";";
    return out;
}

TEST(Merge, AppliesEntriesInOrderOverTheInheritedEnvironment) {
    EXPECT_EQ(built_environment({"NEW=x", "PATH=/a", "KEEP=2", "GONE"}).entries,
              "PATH=/a:/b;KEEP=2;LANGUAGE=de;PATHEXT=.x;NEW=x;");
    EXPECT_EQ(built_environment({"path=/a"}).entries,
              "PATH=/b;KEEP=1;GONE=1;LANGUAGE=de;PATHEXT=.x;path=/a:/b;");
    EXPECT_EQ(built_environment({"LANG=C", "PATHEXT=.y", "LANGUAGE"}).entries,
              "PATH=/b;KEEP=1;GONE=1;PATHEXT=.y;LANG=C;");
}

TEST(Merge, AnyFailedAllocationFailsTheWholeEnvironment) {
    for (int at = 1;; ++at) {
        seams::malloc = {at, ENOMEM};
        Built built = built_environment({"PATH=/a", "NEW=x"});
        bool faulted = seams::malloc.at == 0;
        seams::malloc = {};
        if (!faulted) {
            EXPECT_EQ(built.entries, "PATH=/a:/b;KEEP=1;GONE=1;LANGUAGE=de;PATHEXT=.x;NEW=x;");
            break;
        }
        EXPECT_FALSE(built.ok) << "allocation " << at << " failed, yet the environment was built";
    }
}
} // namespace
