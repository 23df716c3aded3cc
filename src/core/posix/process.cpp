// Starting git on POSIX systems and watching it to the end: posix_spawn with
// a pipe for each output (on Linux, vfork and exec where posix_spawn cannot
// do it: an older glibc, a sandbox that refuses its clone3), git found on PATH
// as subprocess finds it, a wait on non-blocking read ends (ppoll) that looks
// at the deadline on every wake-up, and one owner of the child that, on every
// way out, kills what the run started and reaps git.
//
// What differs between systems is chosen when the build is configured
// (GIT_UTILS_HAVE_*): Linux has pipe2, ppoll, pidfds and /proc; macOS has
// none of those, and uses POSIX_SPAWN_CLOEXEC_DEFAULT, a polled wait, git's
// exit looked for with waitid, and libproc for the processes of a run.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#if __has_include(<sys/syscall.h>)
#include <sys/syscall.h>  // pidfds (Linux)
#endif
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "src/core/process.hpp"
#include "src/core/runner.hpp"

#if defined(__GLIBC__)
// posix_spawn_file_actions_addchdir_np came with glibc 2.29 and
// posix_spawn_file_actions_addclosefrom_np with 2.34. Whether this glibc has
// them is found when the library is loaded (they are referenced weakly, and
// read as null when absent), not when it is built: a build for an older glibc
// (a wheel for glibc 2.17) runs on newer ones and uses them there. Where one
// is missing, git is started by fork and exec instead (start_with_fork).
extern "C" {
int posix_spawn_file_actions_addchdir_np(posix_spawn_file_actions_t*, const char*) noexcept __attribute__((weak));
int posix_spawn_file_actions_addclosefrom_np(posix_spawn_file_actions_t*, int) noexcept __attribute__((weak));
}
#endif

#ifdef GIT_UTILS_HAVE_NSGETENVIRON
#include <crt_externs.h>  // a shared library on macOS cannot refer to environ itself
#else
extern char** environ;
#endif
#ifdef GIT_UTILS_HAVE_LIBPROC
#include <libproc.h>
#include <sys/time.h>
#endif

namespace git_utils {

Environment current_environment() {
#ifdef GIT_UTILS_HAVE_NSGETENVIRON
    char** const all = *::_NSGetEnviron();
#else
    char** const all = environ;
#endif
    std::size_t entries = 0, bytes = 0;
    for (char** entry = all; entry && *entry; ++entry, ++entries) bytes += std::strlen(*entry) + 1;
    Environment env;
    env.reserve(entries, bytes);
    for (char** entry = all; entry && *entry; ++entry) env.add(*entry);
    return env;
}

namespace process {
namespace {

// Owns one file descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~Fd() { reset(); }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// Owns the spawn attributes and file actions.
struct SpawnSetup {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    SpawnSetup() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attr);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
    }
};

// A pipe for one of git's outputs: our end non-blocking (a read never waits,
// so the deadline is seen whatever git writes), git's end as usual. Both
// close on exec; without pipe2 they are marked a moment later, and then only
// a start that closes what it was not given (as ours do) can be sure not to
// take them along.
void make_pipe(Fd& read_end, Fd& write_end) {
    int fds[2];
#ifdef GIT_UTILS_HAVE_PIPE2
    if (::pipe2(fds, O_CLOEXEC) != 0) throw OsError(errno, "git");
    read_end.reset(fds[0]);
    write_end.reset(fds[1]);
#else
    if (::pipe(fds) != 0) throw OsError(errno, "git");
    read_end.reset(fds[0]);
    write_end.reset(fds[1]);
    if (::fcntl(fds[0], F_SETFD, FD_CLOEXEC) != 0 || ::fcntl(fds[1], F_SETFD, FD_CLOEXEC) != 0)
        throw OsError(errno, "git");
#endif
    if (::fcntl(fds[0], F_SETFL, O_NONBLOCK) != 0) throw OsError(errno, "git");
}

// A pseudo-terminal slave for git's stdin (the master is kept open so the
// slave never reports a hang-up). False where none can be made (a container
// without a /dev/pts of its own, a system without pseudo-terminals).
bool open_terminal(Fd& master, Fd& slave) {
    master.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (master.get() < 0 && errno == EINVAL) {  // a system that takes no O_CLOEXEC here
        master.reset(::posix_openpt(O_RDWR | O_NOCTTY));
        if (master.get() >= 0) ::fcntl(master.get(), F_SETFD, FD_CLOEXEC);
    }
    char name[128];
    if (master.get() < 0 || ::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0 ||
        ::ptsname_r(master.get(), name, sizeof name) != 0)
        return false;
    slave.reset(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    return slave.get() >= 0;
}

// The error number chdir would give for `cwd` (0: it can be entered), found
// without entering it: the working directory belongs to the whole process.
int directory_error(const char* cwd) {
    struct stat st;
    if (::stat(cwd, &st) != 0) return errno;
    if (!S_ISDIR(st.st_mode)) return ENOTDIR;
    return ::access(cwd, X_OK) == 0 ? 0 : errno;
}

// What every attempt of one run to start git shares.
struct Launch {
    char* const* argv;
    char* const* envp;
    const char* cwd;
    StdinMode stdin_mode;  // Terminal: `terminal` is git's standard input
    int terminal;
    int out, err;  // the write ends of the pipes
};

// How one attempt ended: 0, or the error number and whether it came from
// entering the working directory (otherwise from running the program).
struct Attempt {
    int error = 0;
    bool in_directory = false;
};

// posix_spawn sets up git's descriptors, directory and signals in the child
// (SpawnSetup, filled by spawn_setup()).
Attempt start_with_spawn(const Launch& launch, const SpawnSetup& setup, const char* program, pid_t& pid) {
    const int rc = ::posix_spawn(&pid, program, &setup.actions, &setup.attr, launch.argv, launch.envp);
    if (rc == 0) return {};
    // The directory is entered before the program runs; the failure is its
    // own when it cannot be entered.
    return {rc, directory_error(launch.cwd) != 0};
}

#if defined(__linux__)
#define GIT_UTILS_FORK_START 1

// Set once the kernel refused a posix_spawn (EPERM or ENOSYS for its clone3:
// container seccomp profiles of 2021 refused clone3 with EPERM, and glibc
// 2.34 and later fall back to clone only on ENOSYS) and a fork start worked:
// every later run of the process starts git by fork at once.
std::atomic<bool> spawn_refused{false};

// Where the child of a fork start reports the step that failed, in the memory
// it shares with its parent until the exec.
struct ChildReport {
    int error;
    int in_directory;
};

// Closes every descriptor from 3 up: close_range (Linux 5.9), else each one
// listed in /proc/self/fd (read with getdents64 into the stack), else every
// number up to the limit of open files. For the child of a fork start: no
// allocation.
__attribute__((no_sanitize("address"))) void close_from_3() noexcept {
#ifdef SYS_close_range
    if (::syscall(SYS_close_range, 3U, ~0U, 0U) == 0) return;
#endif
    const int dir = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        alignas(8) char entries[2048];
        long n;
        while ((n = ::syscall(SYS_getdents64, dir, entries, sizeof entries)) > 0) {
            for (long at = 0; at < n;) {
                // struct linux_dirent64: inode, offset, record length, type, name
                unsigned short length;
                std::memcpy(&length, entries + at + 16, sizeof length);
                const char* name = entries + at + 19;
                int fd = 0;
                for (; *name >= '0' && *name <= '9'; ++name) fd = fd * 10 + (*name - '0');
                if (*name == '\0' && fd >= 3 && fd != dir) ::close(fd);
                at += length;
            }
        }
        ::close(dir);
        if (n == 0) return;
    }
    const long limit = ::sysconf(_SC_OPEN_MAX);
    for (long fd = 3; fd < limit; ++fd) ::close(static_cast<int>(fd));
}

// The child of a fork start, between vfork and exec: system calls only, with
// every signal held (it runs on the parent's memory until the exec). It sets
// git up as the posix_spawn start does and as subprocess's child does: each
// signal the host catches back to its default (its handler would run here, on
// the parent's memory), SIGPIPE, SIGXFSZ and SIGCHLD to their defaults, git's
// three standard descriptors, the working directory, nothing else open, no
// signal held; then the program. A failed step is reported to the parent.
[[noreturn]] __attribute__((noinline, no_sanitize("address"))) void exec_child(
    const Launch& launch, const char* program, volatile ChildReport& report) noexcept {
    struct sigaction default_action {};
    default_action.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) {
        struct sigaction now {};
        if (sig == SIGKILL || sig == SIGSTOP || ::sigaction(sig, nullptr, &now) != 0) continue;
        const bool caught = now.sa_handler != SIG_DFL && now.sa_handler != SIG_IGN;
        if (caught || sig == SIGPIPE || sig == SIGXFSZ || sig == SIGCHLD) ::sigaction(sig, &default_action, nullptr);
    }
    const auto fail = [&](int error, bool in_directory) {
        report.error = error;
        report.in_directory = in_directory;
        ::_exit(127);
    };
    if (launch.stdin_mode == StdinMode::Null) {
        const int null = ::open("/dev/null", O_RDONLY);
        if (null < 0) fail(errno, false);
        if (null != 0 && (::dup2(null, 0) < 0 || ::close(null) != 0)) fail(errno, false);
    } else if (launch.stdin_mode == StdinMode::Terminal && ::dup2(launch.terminal, 0) < 0) {
        fail(errno, false);
    }
    if (::dup2(launch.out, 1) < 0 || ::dup2(launch.err, 2) < 0) fail(errno, false);
    if (::chdir(launch.cwd) != 0) fail(errno, true);
    close_from_3();
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(program, launch.argv, launch.envp);
    fail(errno, false);
    __builtin_unreachable();
}

// Whether posix_spawn can set git up completely here: enter its directory and
// close what it is not given (on glibc: whether this one has the two file
// actions above).
bool spawn_complete() {
#if defined(__GLIBC__)
    return posix_spawn_file_actions_addchdir_np != nullptr && posix_spawn_file_actions_addclosefrom_np != nullptr;
#elif defined(GIT_UTILS_HAVE_SPAWN_ADDCLOSEFROM)
    return true;
#else
    return false;
#endif
}

// Starts `program` the way subprocess does: vfork, then exec_child. For
// systems where posix_spawn cannot set git up (glibc before 2.34) or where the
// kernel refuses its clone.
Attempt start_with_fork(const Launch& launch, const char* program, pid_t& pid) {
    // git's descriptors are moved above 2 (a host that closed its own
    // standard descriptors gets pipes there), so that putting one in place
    // cannot overwrite another.
    Launch moved = launch;
    Fd copies[3];
    const auto above_2 = [](int& fd, Fd& copy) {
        if (fd < 0 || fd > 2) return;
        copy.reset(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
        if (copy.get() < 0) throw OsError(errno, "git");
        fd = copy.get();
    };
    above_2(moved.out, copies[0]);
    above_2(moved.err, copies[1]);
    if (moved.stdin_mode == StdinMode::Terminal) above_2(moved.terminal, copies[2]);

    volatile ChildReport report{0, 0};
    sigset_t all, caller;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &caller);
    const pid_t child = ::vfork();
    if (child == 0) exec_child(moved, program, report);
    const int vfork_error = errno;
    ::pthread_sigmask(SIG_SETMASK, &caller, nullptr);
    if (child < 0) throw OsError(vfork_error, "git");
    if (report.error != 0) {
        int status;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        return {report.error, report.in_directory != 0};
    }
    pid = child;
    return {};
}
#endif

// The file actions and attributes of a posix_spawn start.
void spawn_setup(SpawnSetup& setup, const Launch& launch) {
    if (launch.stdin_mode == StdinMode::Null)
        posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
    else if (launch.stdin_mode == StdinMode::Terminal)
        posix_spawn_file_actions_adddup2(&setup.actions, launch.terminal, 0);
    posix_spawn_file_actions_adddup2(&setup.actions, launch.out, 1);
    posix_spawn_file_actions_adddup2(&setup.actions, launch.err, 2);
    posix_spawn_file_actions_addchdir_np(&setup.actions, launch.cwd);
    short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    // Like subprocess's close_fds: git inherits nothing but 0, 1 and 2.
#if defined(__GLIBC__) || defined(GIT_UTILS_HAVE_SPAWN_ADDCLOSEFROM)
    posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);
#elif defined(GIT_UTILS_HAVE_SPAWN_CLOEXEC_DEFAULT)
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;  // everything not named by a file action closes
    if (launch.stdin_mode == StdinMode::Inherit) posix_spawn_file_actions_addinherit_np(&setup.actions, 0);
#endif
    // Signals the host ignores or blocks are not git's business: SIGPIPE and
    // SIGXFSZ back to their defaults as subprocess does, and SIGCHLD too (git
    // waits for the programs it runs, which fails where SIGCHLD is ignored);
    // no blocked signals inherited from the calling thread. (posix_spawn puts
    // the signals the host catches back to their defaults itself.)
    sigset_t defaults, empty;
    sigemptyset(&empty);
    sigemptyset(&defaults);
    for (int sig : {SIGPIPE, SIGXFSZ, SIGCHLD}) sigaddset(&defaults, sig);
    posix_spawnattr_setsigdefault(&setup.attr, &defaults);
    posix_spawnattr_setsigmask(&setup.attr, &empty);
    posix_spawnattr_setflags(&setup.attr, flags);
}

// One attempt to start `program`: posix_spawn when `setup` is given, else (and
// when the kernel refuses posix_spawn's clone) by fork.
Attempt start_program(const Launch& launch, const SpawnSetup* setup, const char* program, pid_t& pid) {
#if defined(GIT_UTILS_FORK_START)
    if (!setup || spawn_refused.load(std::memory_order_relaxed)) return start_with_fork(launch, program, pid);
    const Attempt spawned = start_with_spawn(launch, *setup, program, pid);
    if (spawned.error != EPERM && spawned.error != ENOSYS) return spawned;
    // EPERM also comes from exec itself (a set-user-ID program on a nosuid
    // mount, a security module); only when the fork start fails otherwise was
    // it the clone.
    const Attempt forked = start_with_fork(launch, program, pid);
    if (forked.error != spawned.error || forked.in_directory) spawn_refused.store(true, std::memory_order_relaxed);
    return forked;
#else
    return start_with_spawn(launch, *setup, program, pid);
#endif
}

// Starts git from the first entry of the PATH of `env` whose git can run,
// trying the entries in order as subprocess's child does (and the shell): a
// name that does not exist (ENOENT, ENOTDIR; also a script whose interpreter
// does not) is passed over silently; any other failure (ENOEXEC for a file
// without #! or for another machine, EACCES for one that is no executable
// file) is remembered, and the search goes on. A relative entry names a
// directory under git's working directory, where execve resolves it. When
// PATH is unset, /bin:/usr/bin, as os.defpath.
//
// False when no entry has a git that exists; OsError with the first failure
// remembered when none could run. The working directory comes first, as
// subprocess enters it before it looks for the program: when it cannot be
// entered, that is the error (ENOENT: false, "git not found", like a missing
// git).
bool start_git(const Launch& launch, const Environment& env, const SpawnSetup* setup, pid_t& pid) {
    std::string_view path = "/bin:/usr/bin";
    for (std::size_t i = 0; i < env.size(); ++i) {
        if (env[i].starts_with("PATH=")) {
            path = env[i].substr(5);
            break;  // the first, as getenv finds it
        }
    }
    const std::string_view cwd = launch.cwd;
    int first_failure = 0;
    bool tried = false;
    for (std::size_t start = 0;;) {
        const std::size_t end = path.find(':', start);
        const std::string_view dir = path.substr(start, end == std::string_view::npos ? end : end - start);
        const std::string program = std::string(dir.empty() ? "." : dir) + "/git";
        const std::string checked = program[0] == '/' || cwd.empty() ? program : std::string(cwd) + "/" + program;
        // Names that cannot run are told apart without starting anything,
        // with the error execve gives for them.
        struct stat st;
        int error = ::stat(checked.c_str(), &st) != 0      ? errno
                    : !S_ISREG(st.st_mode)                  ? EACCES
                    : ::access(checked.c_str(), X_OK) != 0 ? errno
                                                            : 0;
        if (error == 0) {
            tried = true;
            const Attempt attempt = start_program(launch, setup, program.c_str(), pid);
            if (attempt.error == 0) return true;
            if (attempt.in_directory) {
                if (attempt.error == ENOENT) return false;
                throw OsError(attempt.error, launch.cwd);
            }
            error = attempt.error;
        }
        if (error != ENOENT && error != ENOTDIR && first_failure == 0) first_failure = error;
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
    if (!tried) {
        if (const int error = directory_error(launch.cwd)) {
            if (error == ENOENT) return false;
            throw OsError(error, launch.cwd);
        }
    }
    if (first_failure != 0) throw OsError(first_failure, "git");
    return false;
}

int pidfd_open(pid_t pid) {
#if defined(SYS_pidfd_open) && !defined(GIT_UTILS_NO_PIDFD)
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

// Sends `sig` through the pidfd when there is one (it names that process and
// no other, whatever happens to the pid), else by pid.
void send_signal(pid_t pid, int pidfd, int sig) {
#ifdef SYS_pidfd_send_signal
    if (pidfd >= 0) {
        ::syscall(SYS_pidfd_send_signal, pidfd, sig, nullptr, 0);
        return;
    }
#else
    (void)pidfd;
#endif
    ::kill(pid, sig);
}

// Keeps the asynchronous signals of the calling thread waiting while the
// runner works between two waits, and lets them in only inside the wait: a
// signal that arrives while output is being read then interrupts the next
// wait, instead of being noticed only when git next writes or the deadline
// comes. Signals that report a fault of this thread are never held.
class SignalGate {
public:
    SignalGate() {
        sigset_t held;
        sigfillset(&held);
        for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) sigdelset(&held, sig);
        ::pthread_sigmask(SIG_BLOCK, &held, &caller_);
    }
    SignalGate(const SignalGate&) = delete;
    SignalGate& operator=(const SignalGate&) = delete;
    ~SignalGate() { ::pthread_sigmask(SIG_SETMASK, &caller_, nullptr); }

    // Waits for `fds` until `timeout` passes (null: no limit), with the
    // caller's signals let in during the wait only: a signal ends it with
    // EINTR, after its handler ran.
    int wait(pollfd* fds, nfds_t n, const timespec* timeout) {
#ifdef GIT_UTILS_HAVE_PPOLL
        return ::ppoll(fds, n, timeout, &caller_);
#else
        // Without ppoll (macOS) the signals stay held during poll, which
        // waits 10 ms at most; one that came meanwhile is pending, and is let
        // in here. A signal is seen within 10 ms, never lost.
        if (!signal_pending()) {
            int ms = 10;
            if (timeout && timeout->tv_sec == 0 && timeout->tv_nsec < 10000000)
                ms = static_cast<int>((timeout->tv_nsec + 999999) / 1000000);
            const int ready = ::poll(fds, n, ms);
            if (ready != 0 || !signal_pending()) return ready;
        }
        sigset_t held;
        ::pthread_sigmask(SIG_SETMASK, &caller_, &held);  // the pending handlers run now
        ::pthread_sigmask(SIG_SETMASK, &held, nullptr);
        errno = EINTR;
        return -1;
#endif
    }
    // Runs `hook` with the caller's mask (held signals are delivered first).
    bool call_open(const std::function<bool()>& hook) {
        sigset_t held;
        ::pthread_sigmask(SIG_SETMASK, &caller_, &held);
        bool stop = false;
        try {
            stop = hook();
        } catch (...) {
            ::pthread_sigmask(SIG_SETMASK, &held, nullptr);
            throw;
        }
        ::pthread_sigmask(SIG_SETMASK, &held, nullptr);
        return stop;
    }

private:
#ifndef GIT_UTILS_HAVE_PPOLL
    // Whether a signal that the caller does not block itself is held.
    bool signal_pending() const {
        sigset_t pending;
        if (::sigpending(&pending) != 0) return false;
        for (int sig = 1; sig < NSIG; ++sig)
            if (sigismember(&pending, sig) == 1 && sigismember(&caller_, sig) == 0) return true;
        return false;
    }
#endif
    sigset_t caller_;
};

// What the system says of a process: its parent, and when it started (in the
// unit of start_mark()).
struct ProcStat {
    pid_t ppid = 0;
    unsigned long long started = 0;
};

// What tells one of our pipes apart from every other: Linux, its inode (both
// ends have it); macOS, the kernel's handle of its write end.
using PipeId = unsigned long long;

#if defined(GIT_UTILS_HAVE_PROC_FS)

// Now, in the clock ticks since boot of /proc/<pid>/stat's start time.
unsigned long long start_mark() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    const long hz = ::sysconf(_SC_CLK_TCK);
    return static_cast<unsigned long long>(now.tv_sec) * static_cast<unsigned long long>(hz) +
           static_cast<unsigned long long>(now.tv_nsec) / (1000000000ULL / static_cast<unsigned long long>(hz));
}

bool read_stat(pid_t pid, ProcStat& st) {
    char path[40];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    Fd fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return false;
    char buf[512];
    ssize_t n = ::read(fd.get(), buf, sizeof buf - 1);
    if (n <= 0) return false;
    buf[n] = '\0';
    // The command name may hold blanks and parentheses: the fields follow the
    // last ')'.
    const char* p = std::strrchr(buf, ')');
    char state;
    int ppid;
    unsigned long long started;
    if (!p || std::sscanf(p + 1, " %c %d %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu",
                          &state, &ppid, &started) != 3)
        return false;
    st.ppid = ppid;
    st.started = started;
    return true;
}

// Calls `visit(pid)` for every process; stops when it returns false.
template <class Visit>
void for_each_process(Visit&& visit) {
    std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
    if (!proc) return;
    while (dirent* entry = ::readdir(proc.get())) {
        char* end;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (pid > 0 && !*end && !visit(static_cast<pid_t>(pid))) return;
    }
}

PipeId pipe_id(int fd) {
    struct stat st;
    return ::fstat(fd, &st) == 0 ? st.st_ino : 0;
}

// Whether `pid` holds the write end of a pipe with one of `ids`.
bool holds_write_end(pid_t pid, const PipeId (&ids)[2]) {
    char path[48];
    std::snprintf(path, sizeof path, "/proc/%d/fd", static_cast<int>(pid));
    DIR* dir = ::opendir(path);
    if (!dir) return false;
    bool holds = false;
    char wanted[2][40];
    for (int i = 0; i < 2; ++i) std::snprintf(wanted[i], sizeof wanted[i], "pipe:[%llu]", ids[i]);
    while (dirent* entry = ::readdir(dir)) {
        char target[64];
        ssize_t n = ::readlinkat(::dirfd(dir), entry->d_name, target, sizeof target - 1);
        if (n <= 0) continue;
        target[n] = '\0';
        if (std::strcmp(target, wanted[0]) != 0 && std::strcmp(target, wanted[1]) != 0) continue;
        // Our own read end is inherited by nobody (close-on-exec), but a
        // fork() of the host that did not exec holds it too; only git's end
        // marks a process of this run.
        char info[300];
        std::snprintf(info, sizeof info, "/proc/%d/fdinfo/%s", static_cast<int>(pid), entry->d_name);
        Fd fd(::open(info, O_RDONLY | O_CLOEXEC));
        char text[256];
        ssize_t m = fd.get() < 0 ? -1 : ::read(fd.get(), text, sizeof text - 1);
        if (m <= 0) continue;
        text[m] = '\0';
        const char* flags = std::strstr(text, "flags:");
        if (flags && (std::strtoul(flags + 6, nullptr, 8) & O_ACCMODE) == O_WRONLY) {
            holds = true;
            break;
        }
    }
    ::closedir(dir);
    return holds;
}

#elif defined(GIT_UTILS_HAVE_LIBPROC)

// Now, in microseconds since the epoch, as libproc gives start times.
unsigned long long start_mark() {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000ULL + static_cast<unsigned long long>(now.tv_usec);
}

bool read_stat(pid_t pid, ProcStat& st) {
    proc_bsdinfo info{};
    if (::proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, &info, sizeof info) != static_cast<int>(sizeof info)) return false;
    st.ppid = static_cast<pid_t>(info.pbi_ppid);
    st.started = static_cast<unsigned long long>(info.pbi_start_tvsec) * 1000000ULL + info.pbi_start_tvusec;
    return true;
}

template <class Visit>
void for_each_process(Visit&& visit) {
    std::vector<pid_t> pids(4096);
    int n = 0;
    for (;;) {
        n = ::proc_listallpids(pids.data(), static_cast<int>(pids.size() * sizeof(pid_t)));
        if (n <= 0) return;
        if (static_cast<std::size_t>(n) < pids.size()) break;
        pids.resize(pids.size() * 2);
    }
    for (int i = 0; i < n; ++i)
        if (pids[static_cast<std::size_t>(i)] > 0 && !visit(pids[static_cast<std::size_t>(i)])) return;
}

// The handle of the write end of the pipe whose read end is `fd`.
PipeId pipe_id(int fd) {
    pipe_fdinfo info{};
    if (::proc_pidfdinfo(::getpid(), fd, PROC_PIDFDPIPEINFO, &info, sizeof info) != static_cast<int>(sizeof info))
        return 0;
    return info.pipeinfo.pipe_peerhandle;
}

bool holds_write_end(pid_t pid, const PipeId (&ids)[2]) {
    std::vector<proc_fdinfo> fds(256);
    int bytes = 0;
    for (;;) {
        bytes = ::proc_pidinfo(pid, PROC_PIDLISTFDS, 0, fds.data(), static_cast<int>(fds.size() * sizeof(proc_fdinfo)));
        if (bytes <= 0) return false;
        if (static_cast<std::size_t>(bytes) < fds.size() * sizeof(proc_fdinfo)) break;
        fds.resize(fds.size() * 2);
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(bytes) / sizeof(proc_fdinfo); ++i) {
        if (fds[i].proc_fdtype != PROX_FDTYPE_PIPE) continue;
        pipe_fdinfo info{};
        if (::proc_pidfdinfo(pid, fds[i].proc_fd, PROC_PIDFDPIPEINFO, &info, sizeof info) != static_cast<int>(sizeof info))
            continue;
        const PipeId handle = info.pipeinfo.pipe_handle;
        if (handle != 0 && (handle == ids[0] || handle == ids[1])) return true;
    }
    return false;
}

#else

// No way to list processes: a timeout ends git only.
unsigned long long start_mark() { return 0; }
bool read_stat(pid_t, ProcStat&) { return false; }
template <class Visit>
void for_each_process(Visit&&) {}
PipeId pipe_id(int) { return 0; }
bool holds_write_end(pid_t, const PipeId (&)[2]) { return false; }

#endif

// Stops, then kills, everything one run started and may still be running:
// git's descendants (followed through parent links, whatever process group or
// session they moved to), and, while one of our pipes is still open, every
// process that holds its write end (a grandchild whose parent exited belongs
// to init by now, and can be found only that way). Each process is stopped as soon as it is
// found, so that it starts nothing new, and the process table (/proc, or
// libproc on macOS) is read again until a pass finds nobody new; then all of
// them are killed.
//
// Only processes that started after git can be taken (which also keeps the
// pass short: most processes are rejected on one read). A process is
// signalled through a pidfd opened after it was found, and only if it still
// meets the test that found it after the pidfd was opened: a pid that was
// reused in between names a process that fails the test (without pidfds, as
// on macOS, it is signalled by pid right after the test). The host's own children other
// than git (other runs, a fork() of the host) are never taken.
class Sweep {
public:
    Sweep(pid_t git, int git_pidfd, bool git_gone, unsigned long long git_started, const PipeId (&pipes)[2],
          bool pipes_open, bool use_pidfd)
        : git_(git), git_pidfd_(git_pidfd), git_gone_(git_gone), pipes_open_(pipes_open),
          use_pidfd_(use_pidfd), self_(::getpid()), git_started_(git_started) {
        pipes_[0] = pipes[0];
        pipes_[1] = pipes[1];
    }

    void run() noexcept {
        if (!git_gone_) send_signal(git_, git_pidfd_, SIGSTOP);
        try {
            for (int pass = 0; pass < 64 && find_more(); ++pass) {
            }
        } catch (...) {
            // Out of memory: what was found (and stopped) is killed all the same.
        }
        for (auto& [pid, fd] : found_) send_signal(pid, fd.get(), SIGKILL);
    }

private:
    bool known(pid_t pid) const {
        return pid == git_ || std::any_of(found_.begin(), found_.end(), [pid](const auto& f) { return f.first == pid; });
    }

    bool ours(pid_t pid) const {
        ProcStat st;
        if (!read_stat(pid, st) || st.started < git_started_ || st.ppid == self_) return false;
        if (!git_gone_ && st.ppid == git_) return true;
        if (std::any_of(found_.begin(), found_.end(), [&](const auto& f) { return f.first == st.ppid; })) return true;
        return pipes_open_ && holds_write_end(pid, pipes_);
    }

    // One pass over the process table; true when it found someone new.
    bool find_more() {
        bool more = false;
        for_each_process([&](pid_t pid) {
            if (pid == self_ || known(pid) || !ours(pid)) return true;
            Fd fd(use_pidfd_ ? pidfd_open(pid) : -1);
            if (fd.get() >= 0 && !ours(pid)) return true;
            auto& [found_pid, found_fd] = found_.emplace_back(pid, std::move(fd));
            send_signal(found_pid, found_fd.get(), SIGSTOP);
            more = true;
            return true;
        });
        return more;
    }

    pid_t git_;
    int git_pidfd_;
    bool git_gone_, pipes_open_, use_pidfd_;
    pid_t self_;
    unsigned long long git_started_;
    PipeId pipes_[2];
    std::vector<std::pair<pid_t, Fd>> found_;
};

// The one owner of the started git. Git is kept unreaped (a zombie once it has
// exited) until the run ends, so its pid cannot be reused while the run may
// still signal it; it is reaped once, at the end, on every way out.
class Child {
public:
    // `pipes`: our read ends, open as long as this object lives.
    Child(pid_t pid, unsigned long long started, bool use_pidfd, const int (&pipes)[2])
        : pid_(pid), started_(started), use_pidfd_(use_pidfd) {
        pipes_[0] = pipes[0];
        pipes_[1] = pipes[1];
        if (use_pidfd_) {
            pidfd_.reset(pidfd_open(pid));
            // Already exited and taken by the kernel (the host ignores
            // SIGCHLD): nothing to watch.
            if (pidfd_.get() < 0 && errno == ESRCH) learn_exit(false);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (!reaped_) stop_everything(true);
    }

    int pidfd() const { return pidfd_.get(); }
    bool exited() const { return exited_; }

    // Takes git's exit status without reaping it; `wait` when it is known to
    // have exited (its pidfd is readable). Where the host ignores SIGCHLD the
    // kernel reaps git itself and no status is left: like subprocess, the run
    // then counts as exit code 0.
    void learn_exit(bool wait) {
        siginfo_t info{};
        int r;
        do {
            r = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT | (wait ? 0 : WNOHANG));
        } while (r < 0 && errno == EINTR);
        if (r == 0 && info.si_pid == pid_) {
            exited_ = true;
            code_ = info.si_code == CLD_EXITED ? info.si_status : -info.si_status;
        } else if (r < 0 && errno == ECHILD) {
            exited_ = gone_ = true;
            code_ = 0;
        }
    }

    // Stops and kills what the run started (see Sweep), then reaps git.
    void stop_everything(bool pipes_open) noexcept {
        // Without a pidfd, git's exit is otherwise looked for only once both
        // pipes are closed: where the kernel reaps git itself, its pid must
        // not be signalled after that.
        if (!exited_) learn_exit(false);
        const PipeId ids[2] = {pipe_id(pipes_[0]), pipe_id(pipes_[1])};
        Sweep(pid_, pidfd_.get(), gone_, started_, ids, pipes_open, use_pidfd_).run();
        if (!gone_) send_signal(pid_, pidfd_.get(), SIGKILL);
        reap();
    }

    // Reaps git (once) and gives its exit code.
    int reap() {
        if (!reaped_ && !gone_) {
            int status = 0;
            pid_t r;
            while ((r = ::waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
            }
            if (!exited_ && r == pid_) code_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        }
        reaped_ = true;
        return code_;
    }

private:
    pid_t pid_;
    unsigned long long started_;  // no later than git's start, in start_mark() units
    Fd pidfd_;
    bool use_pidfd_;
    int pipes_[2];
    bool exited_ = false, gone_ = false, reaped_ = false;
    int code_ = 0;
};

// One output stream being read.
struct Stream {
    Fd fd;
    OutputBuffer& buffer;
    bool open = true;

    // One read of what is there; the stream closes at end of file (or a
    // read error, which ends it the same way).
    void read_some() {
        std::span<char> room = buffer.room();
        ssize_t n = ::read(fd.get(), room.data(), room.size());
        if (n > 0) {
            buffer.commit(static_cast<std::size_t>(n));
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
            open = false;
        }
    }
};

}  // namespace

RunOutcome run(const Request& request, OutputBuffer& out, OutputBuffer& err) {
    SignalGate gate;
    Fd out_w, err_w, tty_master, tty_slave;
    Stream streams[2] = {{Fd(), out}, {Fd(), err}};
    make_pipe(streams[0].fd, out_w);
    make_pipe(streams[1].fd, err_w);
#ifdef F_SETPIPE_SZ
    // Bigger pipes mean fewer wake-ups for large outputs; failure is harmless.
    ::fcntl(streams[0].fd.get(), F_SETPIPE_SZ, 1 << 20);
#endif
    const int pipes[2] = {streams[0].fd.get(), streams[1].fd.get()};

    // Where no pseudo-terminal can be made, git reads the host's standard
    // input, as the plain runner gives it.
    StdinMode stdin_mode = request.stdin_mode;
    if (stdin_mode == StdinMode::Terminal && !open_terminal(tty_master, tty_slave)) stdin_mode = StdinMode::Inherit;

    std::vector<char*> argv;
    argv.reserve(request.args.size() + 2);
    static char git_name[] = "git";
    argv.push_back(git_name);
    for (const auto& a : request.args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    envp.reserve(request.env.size() + 1);
    for (std::size_t i = 0; i < request.env.size(); ++i) envp.push_back(const_cast<char*>(request.env.c_str(i)));
    envp.push_back(nullptr);
    const Launch launch{argv.data(), envp.data(), request.cwd.c_str(), stdin_mode, tty_slave.get(), out_w.get(), err_w.get()};
    SpawnSetup setup;
#if defined(GIT_UTILS_FORK_START)
    const bool spawn = request.use_posix_spawn && spawn_complete();
#else
    const bool spawn = true;
#endif
    if (spawn) spawn_setup(setup, launch);

    const unsigned long long started = start_mark();
    pid_t pid = -1;
    if (!start_git(launch, request.env, spawn ? &setup : nullptr, pid)) return ended(RunStatus::NotFound);
    Child child(pid, started, request.use_pidfd, pipes);
    out_w.reset();
    err_w.reset();
    tty_slave.reset();
    if (tty_master.get() >= 0) {
        // End of file on the terminal (it starts in canonical mode): git
        // reads stdin only when it has no revision to summarise (outside a
        // repository, no commits yet), and then it must not wait for input.
        const char eof = 0x04;
        (void)!::write(tty_master.get(), &eof, 1);
    }

    const bool limited = request.deadline != Clock::time_point::max();
    try {
        for (;;) {
            const bool reading = streams[0].open || streams[1].open;
            if (!child.exited() && !reading && child.pidfd() < 0) child.learn_exit(false);
            if (child.exited() && !reading) break;

            timespec wait{}, *wait_for = nullptr;
            if (limited) {
                const auto left = request.deadline - Clock::now();
                if (left <= Clock::duration::zero()) {
                    child.stop_everything(reading);
                    return ended(RunStatus::TimedOut);
                }
                const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
                wait = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
                wait_for = &wait;
            }
            if (!child.exited() && !reading && child.pidfd() < 0) {
                // No pidfd: both pipes are closed, so git is finishing; look
                // for its exit in short steps.
                if (!wait_for || wait.tv_sec > 0 || wait.tv_nsec > 5000000) wait = {0, 5000000};
                wait_for = &wait;
            }

            pollfd fds[3];
            nfds_t n = 0;
            int at[3] = {-1, -1, -1};
            for (int i = 0; i < 2; ++i)
                if (streams[i].open) fds[at[i] = static_cast<int>(n++)] = {streams[i].fd.get(), POLLIN, 0};
            if (!child.exited() && child.pidfd() >= 0) fds[at[2] = static_cast<int>(n++)] = {child.pidfd(), POLLIN, 0};
            if (gate.wait(fds, n, wait_for) < 0) {
                if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
                if (request.on_interrupt && gate.call_open(request.on_interrupt)) {
                    child.stop_everything(reading);
                    return ended(RunStatus::TimedOut, 0, true);
                }
                continue;
            }
            // One read per stream and wake-up: the deadline is looked at again
            // before the next, however fast git writes.
            for (int i = 0; i < 2; ++i)
                if (at[i] >= 0 && fds[at[i]].revents) streams[i].read_some();
            if (at[2] >= 0 && fds[at[2]].revents) child.learn_exit(true);
        }
    } catch (...) {
        out.clear();  // the memory may be what the sweep needs
        err.clear();
        child.stop_everything(true);
        throw;
    }
    return ended(RunStatus::Exited, child.reap());
}

}  // namespace process
SilentTerminal::SilentTerminal() {
    process::Fd master, slave;
    if (!process::open_terminal(master, slave)) return;  // none to be had: fd() is -1
    // End of file on the terminal (it starts in canonical mode), so a git that
    // reads standard input does not wait for it.
    const char eof = 0x04;
    (void)!::write(master.get(), &eof, 1);
    master_ = master.release();
    fd_ = slave.release();
}

SilentTerminal::~SilentTerminal() {
    if (fd_ >= 0) ::close(fd_);
    if (master_ >= 0) ::close(master_);
}

}  // namespace git_utils
