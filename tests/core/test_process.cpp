// The process code of the core on the paths the Python tests cannot take: the
// watch as on a kernel without pidfd, a signal in the wait (which the build
// without ppoll, as on macOS, takes differently), and the flags of a Windows
// start, checked on every system. Everything else about a run (chunk edges,
// both pipes, deadlines, signals, the fixed triples) is checked end to end
// through the module in tests/python/test_runner.py; the Windows runner in
// test_win32.cpp.
#include <gtest/gtest.h>
#ifndef _WIN32
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "src/core/process.hpp"
#include "utils/git_utils.hpp"

using namespace git_utils;

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

// The watch as on a kernel without pidfd (before 5.3), with SIGCHLD at its
// default and ignored by the host (the kernel then reaps git itself): the
// answer subprocess gives, on time, and no child or process of the run left.
namespace {

const char* const kFakeGit = R"(#!/bin/sh
case "$1" in
  exit3) printf out; printf err >&2; exit 3 ;;
  chunk_then_pause) head -c 65536 /dev/zero; exec sleep "$2" ;;
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
    const std::function<bool()> no_hook;  // the run's options hold references
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
                                         WatchCase{"chunk_then_pause", 0.3, RunStatus::TimedOut},
                                         WatchCase{"grandchild", 0.3, RunStatus::TimedOut}),
                       ::testing::Bool()),
    [](const auto& info) {
        return std::string(std::get<0>(info.param).name) + (std::get<1>(info.param) ? "_sigchld_ignored" : "");
    });

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

}  // namespace

#endif  // _WIN32
