// The trace switches only ever turn on, so every case runs in a child of its own.
#include <gtest/gtest.h>

#include <cstring>

#include <atomic>
#include <clocale>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <regex>
#include <string>
#include <vector>

#include "quillon/launch.h"
#include "quillon/runtime.h"
#include "runtime/support.h"
#include "support/child.h"
#include "support/named_case.h"

namespace {
using quillon_test::CaseName, quillon_test::PrintTo;

struct TraceCase {
    const char* name;
    std::vector<const char*> variables;
    bool debugOn;
    bool entryExitOn;
};

class TraceSwitches : public testing::TestWithParam<TraceCase> {};

TEST_P(TraceSwitches, FollowTheVariables) {
    const TraceCase& c = GetParam();
    ChildOutcome outcome = RunInChild([&] {
        unsetenv("__JNI_PROCESS_DEBUG");
        unsetenv("$$TRACE");
        unsetenv("__JNI_PROCESS_ENTRYEXIT");
        for (const char* variable : c.variables)
            setenv(variable, "", 1);
        process_log_init_dbg();
        process_log("debug %d\n", 7);
        process_log_entry("label()");
        process_log_exit("label()");
        int sysErr = 0;
        ClearSecondaryGroups(&sysErr); // the exported steps trace like the new process does
        return std::to_string(process_log_is_dbg_enabled()) +
               std::to_string(process_log_is_entryexit_enabled());
    });
    EXPECT_EQ(outcome.report, std::string(c.debugOn ? "1" : "0") + (c.entryExitOn ? "1" : "0"));
    EXPECT_EQ(outcome.out.find("debug 7\n") != std::string::npos, c.debugOn);
    bool framed = outcome.out.find("> entering: [label()]\n") != std::string::npos &&
                  outcome.out.find("< exiting: [label()]\n") != std::string::npos;
    EXPECT_EQ(framed, c.debugOn && c.entryExitOn);
    EXPECT_EQ(outcome.out.find("Trying to clear supplamental groups.\n") != std::string::npos, c.debugOn);
    EXPECT_EQ(outcome.err, "");
}

INSTANTIATE_TEST_SUITE_P(
    Variables, TraceSwitches,
    testing::Values(TraceCase{"none", {}, false, false},
                    TraceCase{"debugEmpty", {"__JNI_PROCESS_DEBUG"}, true, false},
                    TraceCase{"dollarTrace", {"$$TRACE"}, true, false},
                    TraceCase{"entryExitAlone", {"__JNI_PROCESS_ENTRYEXIT"}, false, true},
                    TraceCase{"both", {"__JNI_PROCESS_DEBUG", "__JNI_PROCESS_ENTRYEXIT"}, true, true}),
    CaseName());

TEST(Trace, ErrorLinesGoToBothStreamsWithTheirFieldsWhateverTheSwitches) {
    ChildOutcome outcome = RunInChild([] {
        unsetenv("__JNI_PROCESS_DEBUG");
        unsetenv("$$TRACE");
        process_log_init_dbg();
        process_err("failed [%s]\n", "x");
        process_err(nullptr);
        return std::to_string(linux_getpid());
    });
    std::regex line("Time: \\[0x[0-9a-f]+\\], Process: \\[" + outcome.report +
                    "\\], Thread: \\[0x[0-9a-f]+\\]: failed \\[x\\]\n");
    EXPECT_TRUE(std::regex_match(outcome.out, line)) << outcome.out;
    EXPECT_EQ(outcome.out, outcome.err);
}

TEST(Trace, SwitchStaysOnAndLongMessagesAreCutWithTheirNewline) {
    ChildOutcome outcome = RunInChild([] {
        setenv("__JNI_PROCESS_DEBUG", "1", 1);
        process_log_init_dbg();
        unsetenv("__JNI_PROCESS_DEBUG");
        process_log_init_dbg();
        std::string longText(4000, 'a');
        process_log("%s\n", longText.c_str());
        process_log("next\n");
        return std::string();
    });
    size_t message = outcome.out.find("aaa");
    ASSERT_NE(message, std::string::npos);
    EXPECT_EQ(outcome.out.find_first_not_of('a', message) - message, 3995u);
    EXPECT_NE(outcome.out.find(std::string(10, 'a') + "Time: "), std::string::npos)
        << "no newline after the cut";
}

TEST(MainPid, IsTheProcessIdAndIsResetOnlyByTheChild) {
    int parent = linux_getpid();
    EXPECT_EQ(parent, getpid());
    ChildOutcome outcome = RunInChild([] {
        std::string before = std::to_string(linux_getpid());
        linux_reset_pid();
        return before + " " + std::to_string(linux_getpid()) + " " + std::to_string(getpid());
    });
    int inherited = 0, reset = 0, own = -1;
    sscanf(outcome.report.c_str(), "%d %d %d", &inherited, &reset, &own);
    EXPECT_EQ(inherited, parent);
    EXPECT_EQ(reset, own);
}

// A child forked while another thread holds a trace mutex or a standard stream must not hang.
TEST(ForkSafety, ChildrenNeverBlockOnTraceLocksHeldByOtherThreads) {
    ChildOutcome outcome = RunInChild(
        [] {
            setenv("__JNI_PROCESS_DEBUG", "1", 1);
            freopen("/dev/null", "w", stdout);
            std::atomic<bool> stop{false};
            std::vector<std::thread> busy;
            for (int i = 0; i < 3; ++i)
                busy.emplace_back([&] {
                    while (!stop) {
                        process_log_init_dbg();
                        process_log("busy\n");
                    }
                });
            int hung = 0;
            for (int i = 0; i < 300; ++i) {
                pid_t pid = fork();
                if (pid == 0) {
                    alarm(5);
                    linux_reset_pid();
                    linux_getpid();
                    process_log_init_dbg();
                    process_err("child\n");
                    _exit(0);
                }
                int status = 0;
                waitpid(pid, &status, 0);
                if (!WIFEXITED(status)) ++hung;
            }
            stop = true;
            for (auto& thread : busy)
                thread.join();
            return std::to_string(hung);
        },
        120);
    EXPECT_EQ(outcome.report, "0");
}

// A call is made again while a signal interrupts it, and only then: one that succeeds while errno holds
// EINTR from an earlier call is made once.
TEST(RetryOnEintr, RepeatsOnlyCallsASignalInterrupted) {
    int calls = 0;
    errno = EINTR;
    EXPECT_EQ(retry_on_eintr([&] { // a wrong loop ends at the fifth call
                  if (++calls == 5) errno = 0;
                  return 0;
              }),
              0);
    EXPECT_EQ(calls, 1);
    calls = 0;
    EXPECT_EQ(retry_on_eintr([&] {
                  errno = ++calls < 3 ? EINTR : EBADF;
                  return calls < 10 ? -1 : 0;
              }),
              -1);
    EXPECT_EQ(calls, 3);
}

struct ConversionCase {
    const char* name;
    std::string input;
    size_t size;
    const char* from;
    const char* to;
    bool converted;
    std::string output;
};

class Conversion : public testing::TestWithParam<ConversionCase> {};

TEST_P(Conversion, GivesTheTextOrNull) {
    const ConversionCase& c = GetParam();
    std::vector<char> dst(c.size + 1, 'x');
    char* result = process_stringConverter(dst.data(), c.input.c_str(), c.size, c.from, c.to);
    ASSERT_EQ(result != nullptr, c.converted);
    if (c.converted) EXPECT_EQ(std::string(dst.data()), c.output);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Conversion,
    testing::Values(ConversionCase{"latin1ToUtf8", "caf\xe9", 16, "ISO-8859-1", "UTF-8", true, "caf\xc3\xa9"},
                    ConversionCase{"utf8ToLatin1", "caf\xc3\xa9", 16, "UTF-8", "ISO-8859-1", true, "caf\xe9"},
                    ConversionCase{"emptyThroughIconv", "", 4, "ISO-8859-1", "UTF-8", true, ""},
                    ConversionCase{"tooLongThroughIconv", "abcdef", 4, "ISO-8859-1", "UTF-8", false, ""},
                    ConversionCase{"inexpressible", "\xe2\x82\xac", 16, "UTF-8", "ISO-8859-1", false, ""},
                    ConversionCase{"sameCodesCopyAndCut", "abcdef", 4, "UTF-8", "UTF-8", true, "abc"},
                    ConversionCase{"nullCodesAreLatin1", "abc", 8, nullptr, nullptr, true, "abc"},
                    ConversionCase{"unknownCodeSet", "abc", 8, "NO-SUCH-SET", "UTF-8", false, ""}),
    CaseName());

// A plain copy is a strncpy of the whole buffer: cut to size - 1, the rest of a short text zero-filled.
TEST(Conversion, UnderAUtf8LocaleBothDirectionsArePlainCopies) {
    ChildOutcome outcome = RunInChild([] {
        if (setlocale(LC_ALL, "C.UTF-8") == nullptr) return std::string("no C.UTF-8 locale");
        std::string report;
        for (auto convert : {process_stringConverterToUTF8, process_stringConverterFromUTF8}) {
            char cut[8], shorter[8];
            memset(shorter, 'x', sizeof shorter);
            convert(cut, "\xff\xfe longer", sizeof cut);
            convert(shorter, "ab", sizeof shorter);
            report += std::string(cut) + "|" + std::string(shorter, sizeof shorter) + "|";
        }
        return report;
    });
    const std::string expected = std::string("\xff\xfe long|ab") + std::string(6, '\0') + "|";
    EXPECT_EQ(outcome.report, expected + expected);
}
} // namespace
