// The process code of the core on the paths the Python tests cannot take: the
// watch as on a kernel without pidfd, the start by vfork and exec beside
// posix_spawn's, a signal in the wait (which the build without ppoll, as on
// macOS, takes differently). Everything else about a run (chunk edges,
// both pipes, deadlines, signals, the fixed triples) is checked end to end
// through the module in tests/python/test_runner.py; the Windows runner in
// test_win32.cpp (the host's start options as git sees them there).
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
#include <sstream>
#include <thread>

#include "src/core/process.hpp"
#if defined(__linux__)
#include "src/core/posix/posix.hpp"
#endif
#include "utils/git_utils.hpp"

using namespace git_utils;

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

// `text` as the file `dir`/git, executable unless `runnable` is false.
void put_git(const std::filesystem::path& dir, const std::string& text, bool runnable = true) {
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "git") << text;
    using std::filesystem::perms;
    std::filesystem::permissions(dir / "git", runnable ? perms::owner_all : perms::owner_read);
}

bool process_with_argument(const std::string& arg) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream in(entry.path() / "cmdline");
        std::string cmdline;
        try {
            cmdline.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        } catch (const std::ios_base::failure&) {
            continue;  // the process ended while it was read (ESRCH)
        }
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

#if defined(__linux__)
// The sweep takes only processes that started after git: the start time must
// be field 22 of /proc/<pid>/stat (the next field, the memory size, let old
// processes pass and new ones fail once the machine had been up long enough).
TEST(ProcessTable, ReadsTheParentAndTheStartTime) {
    std::ifstream in("/proc/self/stat");
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::vector<std::string> field(20);  // fields 3 to 22
    for (auto& f : field) fields >> f;
    process::ProcStat st;
    ASSERT_TRUE(process::read_stat(::getpid(), st));
    EXPECT_EQ(std::pair(st.ppid, st.started), std::pair(::getppid(), std::stoull(field[19])));
    EXPECT_LE(st.started, process::start_mark());
}
#endif

TEST_P(WatchWithoutPidfd, AnswersOnTimeAndLeavesNothing) {
    const auto& [c, sigchld_ignored] = GetParam();
    const auto dir = std::filesystem::temp_directory_path() / ("fake-git-" + std::to_string(::getpid()));
    put_git(dir, kFakeGit);
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

// git started by posix_spawn and by vfork and exec (the start where
// posix_spawn cannot: an older glibc, a sandbox refusing clone3) gets the same
// setup and fails the same way: PATH searched past gits that cannot run, each
// standard input mode, no descriptor or blocked or ignored signal of the host.
const char* const kProbe = R"sh(#!/bin/sh
PATH=/usr/bin:/bin
pwd
readlink /proc/$$/fd/0
ls /proc/$$/fd
exec grep -E '^(SigBlk|SigIgn)' /proc/self/status
)sh";

struct SetupCase {
    const char* name;
    std::vector<const char*> path;  // bin directories: probe, noexec (no #!), nointerp (#! to nothing), noperm
    StdinMode stdin_mode;
    const char* cwd;  // "dir", "missing" or "file"
    RunStatus status;
    int error;  // the OsError's, when not 0
};
void PrintTo(const SetupCase& c, std::ostream* os) { *os << c.name; }
class StartMethods : public ::testing::TestWithParam<SetupCase> {};

TEST_P(StartMethods, SetGitUpAlikeAndFailAlike) {
    const SetupCase& c = GetParam();
    const auto root = std::filesystem::temp_directory_path() / ("start-" + std::to_string(::getpid()));
    const std::pair<const char*, const char*> gits[] = {
        {"probe", kProbe}, {"noexec", "echo no interpreter line\n"}, {"nointerp", "#!/no/such/shell\n"}, {"noperm", ""}};
    for (const auto& [dir, text] : gits) put_git(root / dir, text, std::string(dir) != "noperm");
    std::ofstream(root / "file") << "";
    std::string path;
    for (const char* dir : c.path) {
        if (!path.empty()) path += ':';
        path += (root / dir).string();
    }
    const std::string cwd = (root / c.cwd).string();
    if (std::string(c.cwd) == "dir") std::filesystem::create_directories(cwd);

    // What the host holds that git must not get: a descriptor without
    // close-on-exec, SIGPIPE ignored, SIGUSR2 blocked.
    int pipe_fds[2];
    ASSERT_EQ(::pipe(pipe_fds), 0);
    ASSERT_EQ(::dup2(pipe_fds[1], 100), 100);
    struct sigaction ignore {}, saved {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &saved);
    std::ifstream status_file("/proc/self/status");
    const std::string host_status((std::istreambuf_iterator<char>(status_file)), std::istreambuf_iterator<char>());
    sigset_t usr2, mask;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &usr2, &mask);

    std::string outputs[2];
    for (bool spawn : {true, false}) {
        const Environment env({"PATH=" + path});
        const std::vector<std::string> args;
        const std::function<bool()> no_hook;
        process::OutputBuffer out, err;
        try {
            const auto outcome = process::run({.args = args, .cwd = cwd, .env = env, .stdin_mode = c.stdin_mode,
                                               .on_interrupt = no_hook, .use_posix_spawn = spawn},
                                              out, err);
            EXPECT_EQ(std::tuple(outcome.status, 0), std::tuple(c.status, c.error)) << "posix_spawn: " << spawn;
            outputs[spawn] = out.take() + err.take();
        } catch (const OsError& e) {
            EXPECT_EQ(std::tuple(RunStatus::Exited, e.code().value(), e.filename()),
                      std::tuple(c.status, c.error, std::string(c.cwd) == "file" ? cwd : "git"))
                << "posix_spawn: " << spawn;
        }
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    sigaction(SIGPIPE, &saved, nullptr);
    for (int fd : {100, pipe_fds[0], pipe_fds[1]}) ::close(fd);
    std::filesystem::remove_all(root);
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }

    if (c.status != RunStatus::Exited || c.error) return;
    const std::string host_stdin = std::filesystem::read_symlink("/proc/self/fd/0").string();
    const std::string expected_stdin = c.stdin_mode == StdinMode::Null ? "/dev/null" : c.stdin_mode == StdinMode::Inherit ? host_stdin : "/dev/pts/";
    EXPECT_EQ(outputs[1].rfind(cwd + "\n" + expected_stdin, 0), 0) << outputs[1];
    EXPECT_EQ(outputs[1].find("\n100\n"), std::string::npos) << outputs[1];
    // The terminals' numbers differ, and glibc's posix_spawn leaves its own two
    // signals (32 and 33, which the host cannot handle) ignored; everything
    // else is the same. No signal is blocked; what the host ignores stays
    // ignored (as under subprocess: a shell's background job ignores SIGINT),
    // but SIGPIPE, SIGXFSZ and SIGCHLD.
    const auto ignored = [](const std::string& status) {
        const auto at = status.find("SigIgn:\t");
        return std::stoull(status.substr(at + 8, 16), nullptr, 16) & ~0x180000000ULL;
    };
    const auto reset = (1ULL << (SIGPIPE - 1)) | (1ULL << (SIGXFSZ - 1)) | (1ULL << (SIGCHLD - 1));
    for (std::string& o : outputs) {
        EXPECT_EQ(ignored(o), ignored(host_status) & ~reset) << o;
        o.erase(o.find("SigIgn:\t"));
        if (auto at = o.find("/dev/pts/"); at != std::string::npos) o.erase(at + 9, o.find('\n', at) - at - 9);
    }
    EXPECT_NE(outputs[1].find("SigBlk:\t0000000000000000\n"), std::string::npos) << outputs[1];
    EXPECT_EQ(outputs[0], outputs[1]);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StartMethods,
    ::testing::Values(SetupCase{"stdin_inherited", {"probe"}, StdinMode::Inherit, "dir", RunStatus::Exited, 0},
                      SetupCase{"stdin_null", {"probe"}, StdinMode::Null, "dir", RunStatus::Exited, 0},
                      SetupCase{"stdin_terminal", {"probe"}, StdinMode::Terminal, "dir", RunStatus::Exited, 0},
                      SetupCase{"unrunnable_gits_first", {"nointerp", "noexec", "noperm", "probe"}, StdinMode::Inherit,
                                "dir", RunStatus::Exited, 0},
                      SetupCase{"only_unrunnable_gits", {"nointerp", "noexec", "noperm"}, StdinMode::Inherit, "dir",
                                RunStatus::Exited, ENOEXEC},
                      SetupCase{"only_a_missing_interpreter", {"nointerp"}, StdinMode::Inherit, "dir",
                                RunStatus::NotFound, 0},
                      SetupCase{"only_without_permission", {"noperm"}, StdinMode::Inherit, "dir", RunStatus::Exited,
                                EACCES},
                      SetupCase{"missing_directory", {"probe"}, StdinMode::Inherit, "missing", RunStatus::NotFound, 0},
                      SetupCase{"directory_is_a_file", {"noexec", "probe"}, StdinMode::Inherit, "file",
                                RunStatus::Exited, ENOTDIR}),
    [](const auto& info) { return std::string(info.param.name); });

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
    EXPECT_EQ(std::tuple(outcome.status, outcome.interrupted), std::tuple(RunStatus::TimedOut, true));
    EXPECT_GE(took, std::chrono::milliseconds(200));
    EXPECT_LT(took, std::chrono::seconds(2));
}

}  // namespace

#endif  // _WIN32
