// The shared text routines and the process runner of the core (on POSIX
// systems; Windows has its own cases in test_win32.cpp).
#include <gtest/gtest.h>
#ifndef _WIN32
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>

#include "src/core/process.hpp"
#include "src/core/queries.hpp"
#include "src/core/run.hpp"
#include "src/core/text.hpp"
#include "utils/git_utils.hpp"

using namespace git_utils;

struct DecodeCase {
    std::string in, out;
};

class DecodeGitText : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(DecodeGitText, MatchesUnicodeRecommendedReplacement) {
    std::string text = GetParam().in;
    decode_git_text(text);
    EXPECT_EQ(text, GetParam().out);
}

const std::string R = "\xEF\xBF\xBD";  // U+FFFD

INSTANTIATE_TEST_SUITE_P(
    Cases, DecodeGitText,
    ::testing::Values(DecodeCase{"", ""}, DecodeCase{"plain ascii text, long enough for words", "plain ascii text, long enough for words"},
                      DecodeCase{"a\r\nb\rc\r\r\n", "a\nb\nc\n\n"}, DecodeCase{"\xff", R},
                      DecodeCase{"\xe2\x82", R}, DecodeCase{"\xe0\x80\x80", R + R + R},
                      DecodeCase{"\xc3\xc2\xa9", R + "\xc2\xa9"}, DecodeCase{"\xed\xa0\x80", R + R + R},
                      DecodeCase{"\xf4\x90\x80\x80", R + R + R + R}, DecodeCase{"\xf0\x9f\x98", R},
                      DecodeCase{"caf\xc3\xa9\r\n\xf0\x9f\x98\x80", "caf\xc3\xa9\n\xf0\x9f\x98\x80"},
                      // The first replacement fits in the room left by the CR LF
                      // pairs, the second does not.
                      DecodeCase{"x\r\n\r\n\xff\xfe", "x\n\n" + R + R},
                      DecodeCase{std::string(20, 'x') + "\r" + std::string(20, 'y'),
                                 std::string(20, 'x') + "\n" + std::string(20, 'y')}));

TEST(Text, StripUsesTheWhiteSpaceSetOnly) {
    EXPECT_EQ(strip(" \t\n\x1c x y \xc2\xa0\xe3\x80\x80"), "x y");
    EXPECT_EQ(strip("\xe2\x80\x8bx"), "\xe2\x80\x8bx");  // U+200B is not white space
    EXPECT_EQ(strip("   "), "");
}

TEST(Text, PythonRepr) {
    EXPECT_EQ(python_repr(" 0d "), "' 0d '");
    EXPECT_EQ(python_repr("it's"), "\"it's\"");
    EXPECT_EQ(python_repr("a'b\"c"), "'a\\'b\"c'");
    EXPECT_EQ(python_repr("x\ty\\"), "'x\\ty\\\\'");
    EXPECT_EQ(python_repr("\xc2\xa0\xe2\x80\x8b\x01\xc3\xa9"), "'\\xa0\\u200b\\x01\xc3\xa9'");
}

// A Windows host's start options on their way to CreateProcessW: the host's
// bits are kept, the runner's own added, and the two that would take git out
// of the runner's hands (leaving its job, being debugged) dropped.
struct StartCase {
    StartOptions host;
    process::NativeStart expected;
};
class WindowsStart : public ::testing::TestWithParam<StartCase> {};

TEST_P(WindowsStart, KeepsTheHostsFlagsAndAddsTheRunnersOwn) {
    EXPECT_EQ(process::windows_start(GetParam().host), GetParam().expected);
}

constexpr std::uint32_t kOwn = 0x4 | 0x400 | 0x80000;  // suspended, UTF-16 environment, attribute list
INSTANTIATE_TEST_SUITE_P(
    Cases, WindowsStart,
    ::testing::Values(StartCase{{}, {0x100, 0, kOwn}},
                      // STARTF_USESHOWWINDOW, SW_HIDE, CREATE_NO_WINDOW: what a Windows host gives
                      StartCase{{0x1, 0, 0x08000000}, {0x101, 0, 0x08000000 | kOwn}},
                      StartCase{{0x100, 7, 0x4000}, {0x100, 7, 0x4000 | kOwn}},
                      // breakaway from the job, both debug flags, and a new process group that stays
                      StartCase{{0, 0, 0x01000000 | 0x3 | 0x200}, {0x100, 0, 0x200 | kOwn}},
                      StartCase{{0xFFFFFFFF, 0xFFFF, 0xFFFFFFFF}, {0xFFFFFFFF, 0xFFFF, 0xFEFFFFFC}}));

#ifndef _WIN32

TEST(Runner, CapturesBothStreamsAndTheExitCode) {
    auto r = run_git_command(".", {"-c", "alias.x=!printf 'out\\r\\n'; printf err >&2; exit 3", "x"});
    EXPECT_EQ(r, (GitResult{"out\n", "err", 3, "", RunStatus::Exited}));
}

TEST(Runner, MissingDirectoryIsNotFound) {
    EXPECT_EQ(run_git_command("/no/such/dir", {"status"}), not_found_result());
}

TEST(Runner, FileAsDirectoryThrowsWithTheDirectoryName) {
    try {
        run_git_command("/etc/hostname", {"status"});
        FAIL();
    } catch (const OsError& e) {
        EXPECT_EQ(e.code().value(), ENOTDIR);
        EXPECT_EQ(e.filename(), "/etc/hostname");
    }
}

TEST(Runner, DeadlineHoldsWhenAGrandchildKeepsThePipesOpen) {
    auto start = std::chrono::steady_clock::now();
    auto r = run_git_command(".", {"-c", "alias.x=!sleep 5 & sleep 5", "x"}, 0.3);
    EXPECT_EQ(r, timed_out_result());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST(Runner, KilledBySignalGivesNegativeCode) {
    auto r = run_git_command(".", {"-c", "alias.x=!kill -9 $PPID", "x"});
    EXPECT_EQ(r.returncode, -9);
}

TEST(Runner, LargeOutputIsDrainedWhileStderrIsWrittenToo) {
    // 8 MB on stdout and 1 MB on stderr: either pipe filling up would deadlock
    // a runner that read them one after the other.
    auto r = run_git_command(".", {"-c", "alias.x=!head -c 1000000 /dev/zero >&2; head -c 8000000 /dev/zero", "x"});
    EXPECT_EQ(r.returncode, 0);
    EXPECT_EQ(r.out.size(), 8000000u);
    EXPECT_EQ(r.err.size(), 1000000u);
}

class RunnerOutputSize : public ::testing::TestWithParam<std::size_t> {};

TEST_P(RunnerOutputSize, EveryByteArrivesInOrder) {
    // Numbered lines, so a chunk joined twice, dropped or out of order shows.
    std::string expected;
    for (int i = 1; expected.size() < GetParam(); ++i) expected += std::to_string(i) + "\n";
    expected.resize(GetParam());
    auto r = run_git_command(".", {"-c", "alias.x=!seq 1 10000000 | head -c " + std::to_string(GetParam()), "x"});
    EXPECT_EQ(r.returncode, 0);
    EXPECT_EQ(r.out.size(), expected.size());
    EXPECT_TRUE(r.out == expected);
}

// Around the sizes where the collector starts a new chunk (64 KiB, then
// twice the last), and several chunks of the largest size.
INSTANTIATE_TEST_SUITE_P(ChunkEdges, RunnerOutputSize,
                         ::testing::Values(0, 1, 65535, 65536, 65537, 196608, 196609, 33 << 20));

TEST(Runner, TimeLimitThatIsNotANumberOrNegativeExpiresAtOnce) {
    for (double seconds : {std::nan(""), -1.0, -HUGE_VAL}) {
        RunOptions options;
        options.timeout = seconds;
        EXPECT_EQ(run_git_process({"version"}, ".", options).status, RunStatus::TimedOut) << seconds;
    }
    RunOptions unlimited;
    unlimited.timeout = HUGE_VAL;
    EXPECT_EQ(run_git_process({"version"}, ".", unlimited).status, RunStatus::Exited);
}

TEST(Runner, ASignalEndsTheWaitAtOnceAndTheHookStopsTheRun) {
    static volatile sig_atomic_t fired = 0;
    struct sigaction alarm {}, saved {};
    alarm.sa_handler = [](int) { fired = 1; };
    sigaction(SIGALRM, &alarm, &saved);
    itimerval in_200ms{};
    in_200ms.it_value.tv_usec = 200000;
    setitimer(ITIMER_REAL, &in_200ms, nullptr);
    RunOptions options;
    options.on_interrupt = [] { return fired != 0; };
    const auto start = std::chrono::steady_clock::now();
    const RunOutcome outcome = run_git_process({"-c", "alias.x=!sleep 5", "x"}, ".", options);
    const auto took = std::chrono::steady_clock::now() - start;
    sigaction(SIGALRM, &saved, nullptr);
    EXPECT_EQ(outcome.status, RunStatus::Interrupted);
    EXPECT_GE(took, std::chrono::milliseconds(200));
    EXPECT_LT(took, std::chrono::seconds(2));
}

TEST(Runner, TerminalStdinMakesIsattyTrue) {
    auto r = run_git_command(".", {"-c", "alias.x=!test -t 0 && echo tty", "x"}, 10, StdinMode::Terminal);
    EXPECT_EQ(r.out, "tty\n");
    r = run_git_command(".", {"-c", "alias.x=!test -t 0 || echo no", "x"}, 10, StdinMode::Null);
    EXPECT_EQ(r.out, "no\n");
}

TEST(Runner, CheckedOutputRaisesWithGitsMessage) {
    EXPECT_EQ(git_error_message(GitResult{"", "  fatal: x\n", 128, "", RunStatus::Exited}), "fatal: x");
    EXPECT_EQ(git_error_message(GitResult{"", " \n", -9, "", RunStatus::Exited}), "git exited with code -9");
    EXPECT_EQ(git_error_message(GitResult{"", "", 1, "1180591620717411303424", RunStatus::Exited}),
              "git exited with code 1180591620717411303424");
    EXPECT_THROW(git_output(".", {"rev-parse", "--verify", "no-such-ref-xyz"}), GitError);
}

// The watch as on a kernel without pidfd (before 5.3), with SIGCHLD at its
// default and ignored by the host (the kernel then reaps git itself): the
// answer subprocess gives, on time, and no child or process of the run left.
namespace {

const char* const kFakeGit = R"(#!/bin/sh
case "$1" in
  exit3) printf out; printf err >&2; exit 3 ;;
  chunk-then-pause) head -c 65536 /dev/zero; exec sleep "$2" ;;
  grandchild) printf started; sleep "$2" & ;;
esac
)";

bool process_with_argument(const std::string& arg) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream in(entry.path() / "cmdline");
        std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (cmdline.find(arg + '\0') != std::string::npos) return true;
    }
    return false;
}

bool has_children() {
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

struct WatchCase {
    const char* name;
    double timeout;
    RunStatus status;
};

class WatchWithoutPidfd : public ::testing::TestWithParam<std::tuple<WatchCase, bool>> {};

TEST_P(WatchWithoutPidfd, AnswersOnTimeAndLeavesNothing) {
    const auto& [c, sigchld_ignored] = GetParam();
    const auto dir = std::filesystem::temp_directory_path() / ("fake-git-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "git") << kFakeGit;
    std::filesystem::permissions(dir / "git", std::filesystem::perms::owner_all);
    Environment env({"PATH=" + dir.string() + ":/usr/bin:/bin"});
    // The fake's sleep lasts 5 s and a fraction that is this process's id, so
    // tests run side by side tell their sleeps apart.
    const std::vector<std::string> args{c.name, "5." + std::to_string(::getpid())};
    const std::string cwd = ".";
    const std::function<bool()> no_hook;
    struct sigaction sigchld {}, saved {};
    sigchld.sa_handler = sigchld_ignored ? SIG_IGN : SIG_DFL;
    sigaction(SIGCHLD, &sigchld, &saved);
    const auto start = process::Clock::now();
    process::OutputBuffer out, err;
    const auto outcome = process::run({.args = args, .cwd = cwd, .env = env,
                                       .deadline = start + std::chrono::duration_cast<process::Clock::duration>(
                                                               std::chrono::duration<double>(c.timeout)),
                                       .on_interrupt = no_hook, .use_pidfd = false},
                                      out, err);
    const double seconds = std::chrono::duration<double>(process::Clock::now() - start).count();
    sigaction(SIGCHLD, &saved, nullptr);
    std::filesystem::remove_all(dir);

    EXPECT_EQ(outcome.status, c.status);
    if (c.status == RunStatus::Exited) {
        EXPECT_EQ(outcome.returncode, sigchld_ignored ? 0 : 3);  // no code is left where the kernel reaps
        EXPECT_EQ(out.take() + err.take(), "outerr");
    }
    EXPECT_GE(seconds, c.status == RunStatus::TimedOut ? c.timeout : 0);
    EXPECT_LT(seconds, c.timeout + 1.5);
    // Within 2 s: a killed process takes a moment to go; a zombie stays.
    for (auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
         (has_children() || process_with_argument(args[1])) && std::chrono::steady_clock::now() < until;)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(has_children());
    EXPECT_FALSE(process_with_argument(args[1]));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, WatchWithoutPidfd,
    ::testing::Combine(::testing::Values(WatchCase{"exit3", 10, RunStatus::Exited},
                                         WatchCase{"chunk-then-pause", 0.3, RunStatus::TimedOut},
                                         WatchCase{"grandchild", 0.3, RunStatus::TimedOut}),
                       ::testing::Bool()),
    [](const auto& info) {
        std::string name = std::get<0>(info.param).name;
        std::replace(name.begin(), name.end(), '-', '_');
        return name + (std::get<1>(info.param) ? "_sigchld_ignored" : "");
    });

}  // namespace

#endif  // _WIN32
