#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "quillon/boundary.h"
#include "support/child.h"
#include "support/fake_jni.h"
#include "support/seams.h"
#include "support/named_case.h"

namespace {
using quillon_test::CaseName, quillon_test::PrintTo;

const std::string kPackage = "com/norvane/quillon/process/exception/";

struct ThrowCase {
    const char* name;
    int code;
    std::string message;
    bool nullMessage;
    int sysErr;
    std::string expectedClass;
    std::string expectedMessage;
};

class Throwing : public testing::TestWithParam<ThrowCase> {};

TEST_P(Throwing, ChoosesClassAndBuildsMessage) {
    const ThrowCase& c = GetParam();
    FakeJni jni;
    ThrowException(jni.env(), c.code, c.nullMessage ? nullptr : c.message.c_str(), c.sysErr);
    ASSERT_EQ(jni.thrown.size(), 1u);
    EXPECT_EQ(jni.thrown[0].className, c.expectedClass);
    EXPECT_EQ(jni.thrown[0].message, c.expectedMessage);
}

const std::string k1019(1019, 'm');
const std::string k1020(1020, 'm');
const std::string k1100(1100, 'm');

INSTANTIATE_TEST_SUITE_P(
    Rules, Throwing,
    testing::Values(ThrowCase{"noSysErr", PROC_INVALID_FILE, "Bad. ", false, 0,
                              kPackage + "InvalidFileException", "Bad. "},
                    ThrowCase{"withText", PROC_INVALID_EXECUTABLE, "Error creating new process.", false,
                              ENOENT, kPackage + "InvalidExecutableException",
                              "Error creating new process. 002: No such file or directory"},
                    ThrowCase{"trailingBlankKept", PROC_CREATE_TIMEOUT, "x. ", false, ETIMEDOUT,
                              kPackage + "CreateProcessTimeoutException", "x.  110: Connection timed out"},
                    ThrowCase{"nullMessage", PROC_HAS_EXITED, "", true, 0,
                              kPackage + "ProcessHasExitedException", ""},
                    ThrowCase{"nullMessageWithErr", PROC_HAS_EXITED, "", true, EPERM,
                              kPackage + "ProcessHasExitedException", " 001: Operation not permitted"},
                    ThrowCase{"noSystemText", PROC_SYSTEM_ERR, "m", false, 4000,
                              kPackage + "ProcessOpException", "m 4000: "},
                    ThrowCase{"rule2At1019", PROC_SYSTEM_ERR, k1019, false, ENOENT,
                              kPackage + "ProcessOpException", k1019 + " 002"},
                    ThrowCase{"aloneAt1020", PROC_SYSTEM_ERR, k1020, false, ENOENT,
                              kPackage + "ProcessOpException", k1020},
                    ThrowCase{"cutTo1023", PROC_SYSTEM_ERR, k1100, false, ENOENT,
                              kPackage + "ProcessOpException", k1100.substr(0, 1023)},
                    ThrowCase{"code0", 0, "a", false, 0, kPackage + "ProcessOpException", "a"},
                    ThrowCase{"code17", 17, "a", false, 0, kPackage + "ProcessOpException", "a"},
                    ThrowCase{"codeNegative", -1, "a", false, 0, kPackage + "ProcessOpException", "a"},
                    ThrowCase{"code16", 16, "a", false, 0, kPackage + "CreateProcessTimeoutException", "a"}),
    CaseName());

TEST(Throwing, FallsBackToJavaLangExceptionAndGivesUpWhenThatIsMissingToo) {
    FakeJni jni;
    jni.missingClasses.insert(kPackage + "AccessDeniedException");
    ThrowException(jni.env(), PROC_ACCESS_DENIED, "denied", EPERM);
    ASSERT_EQ(jni.thrown.size(), 1u);
    EXPECT_EQ(jni.thrown[0].className, "java/lang/Exception");
    EXPECT_EQ(jni.thrown[0].message, "denied 001: Operation not permitted");

    jni.missingClasses.insert("java/lang/Exception");
    ThrowException(jni.env(), PROC_ACCESS_DENIED, "denied", EPERM);
    EXPECT_EQ(jni.thrown.size(), 1u);
}

TEST(SystemText, IsRefusedWithErangeWhenItDoesNotFit) {
    char small[4];
    errno = 0;
    EXPECT_EQ(process_strerror_r(ENOENT, small, sizeof small), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(process_strerror_r(ENOENT, nullptr, 10), -1);
    char text[64];
    ASSERT_EQ(process_strerror_r(ENOENT, text, sizeof text), 0);
    EXPECT_STREQ(text, "No such file or directory");
    EXPECT_EQ(process_strerror_r(4000, text, sizeof text), -1);
}

TEST(Marshalling, StringArrayKeepsEntriesBehindANullAndReleasesThemAll) {
    FakeJni jni;
    jobjectArray array = jni.array({jni.string("A"), nullptr, jni.string(""), jni.string("caf\xc3\xa9")});
    char** native = javaStrArrayToCStrArray(jni.env(), array);
    ASSERT_NE(native, nullptr);
    EXPECT_STREQ(native[0], "A");
    EXPECT_EQ(native[1], nullptr);
    EXPECT_STREQ(native[2], "");
    EXPECT_NE(native[3], nullptr);
    EXPECT_EQ(native[4], nullptr);
    EXPECT_EQ(jni.outstandingChars, 0);
    ReleaseCStrArray(native);
    size_t before = 0; // counted after a warm-up: the heap keeps some of its own bookkeeping for good
    for (int i = 0; i < 1100; ++i) {
        if (i == 100) before = HeapInUse();
        ReleaseCStrArray(javaStrArrayToCStrArray(jni.env(), array));
    }
    EXPECT_EQ(HeapInUse(), before) << "the arrays and their entries are given back";

    char** empty = javaStrArrayToCStrArray(jni.env(), jni.array({}));
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty[0], nullptr);
    ReleaseCStrArray(empty);
}

TEST(Marshalling, FailuresOfTheJvmOrTheHeapGiveNullsNeverACrash) {
    FakeJni jni;
    jobjectArray array = jni.array({jni.string("A"), jni.string("B")});
    seams::malloc = {1, ENOMEM};
    EXPECT_EQ(javaStrArrayToCStrArray(jni.env(), array), nullptr);
    jobjectArray byteArrays = jni.array({jni.bytes("x")});
    seams::malloc = {1, ENOMEM};
    EXPECT_EQ(jByteArrArrayToCStrArray(jni.env(), byteArrays), nullptr);
    seams::malloc = {2, ENOMEM}; // the work buffer of element 0
    char** partial = javaStrArrayToCStrArray(jni.env(), array);
    ASSERT_NE(partial, nullptr);
    EXPECT_EQ(partial[0], nullptr);
    EXPECT_STREQ(partial[1], "B");
    ReleaseCStrArray(partial);

    jni.failStringChars = true;
    char dst[8] = "junk";
    EXPECT_EQ(process_GetNativeStringFromJString(jni.env(), dst, jni.string("A"), sizeof dst), dst);
    EXPECT_STREQ(dst, "");
    EXPECT_EQ(process_GetNativeStringFromArray(jni.env(), dst, jni.bytes(std::string("A\0", 2)), sizeof dst),
              dst);
    EXPECT_STREQ(dst, "");
    char** unread = javaStrArrayToCStrArray(jni.env(), array);
    EXPECT_EQ(unread[0], nullptr);
    ReleaseCStrArray(unread);
    char** noBytes = jByteArrArrayToCStrArray(jni.env(), jni.array({jni.bytes("x")}));
    EXPECT_EQ(noBytes[0], nullptr);
    ReleaseCStrArray(noBytes);
}

TEST(Marshalling, ByteArraysGoOverUnconvertedAndStopAtAZeroByte) {
    FakeJni jni;
    char** native = jByteArrArrayToCStrArray(
        jni.env(), jni.array({jni.bytes(std::string("ab\0cd", 5)), jni.bytes(""), jni.bytes("\xff")}));
    EXPECT_STREQ(native[0], "ab");
    EXPECT_STREQ(native[1], "");
    EXPECT_STREQ(native[2], "\xff");
    EXPECT_EQ(jni.outstandingChars, 0);
    ReleaseCStrArray(native);
}

} // namespace
