// Starting git on POSIX systems: posix_spawn with a pipe for each output (on
// Linux, vfork and exec where posix_spawn cannot do it: an older glibc, a
// sandbox that refuses its clone3), git found on PATH as subprocess finds it.
// Also the process environment and the silent terminal, the other things a
// start is given.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#if __has_include(<sys/syscall.h>)
#include <sys/syscall.h>  // close_range (Linux)
#endif
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "src/core/posix/posix.hpp"

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
bool start_from_path(const Launch& launch, const Environment& env, const SpawnSetup* setup, pid_t& pid) {
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

}  // namespace

void make_plumbing(const Request& request, Plumbing& p) {
    make_pipe(p.out_read, p.out_write);
    make_pipe(p.err_read, p.err_write);
#ifdef F_SETPIPE_SZ
    // Bigger pipes mean fewer wake-ups for large outputs; failure is harmless.
    ::fcntl(p.out_read.get(), F_SETPIPE_SZ, 1 << 20);
#endif
    // Where no pseudo-terminal can be made, git reads the host's standard
    // input, as the plain runner gives it.
    p.stdin_mode = request.stdin_mode;
    if (p.stdin_mode == StdinMode::Terminal && !open_terminal(p.tty_master, p.tty_slave))
        p.stdin_mode = StdinMode::Inherit;
}

bool start_git(const Request& request, const Plumbing& p, pid_t& pid) {
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
    const Launch launch{argv.data(),      envp.data(),           request.cwd.c_str(), p.stdin_mode,
                        p.tty_slave.get(), p.out_write.get(), p.err_write.get()};
    SpawnSetup setup;
#if defined(GIT_UTILS_FORK_START)
    const bool spawn = request.use_posix_spawn && spawn_complete();
#else
    const bool spawn = true;
#endif
    if (spawn) spawn_setup(setup, launch);
    return start_from_path(launch, request.env, spawn ? &setup : nullptr, pid);
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
