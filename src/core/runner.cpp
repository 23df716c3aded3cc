// The git command runner: posix_spawn, both pipes drained together with
// poll(), one deadline for the whole run, and the process group killed and
// git reaped when the deadline passes.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "src/core/run.hpp"

extern char** environ;

namespace git_utils {
namespace {

using Clock = std::chrono::steady_clock;

// Owns one file descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
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

void make_pipe(Fd& read_end, Fd& write_end) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw OsError(errno, "git");
    read_end.reset(fds[0]);
    write_end.reset(fds[1]);
}

// A pseudo-terminal slave for git's stdin (the master is kept open so the
// slave never reports a hang-up; nothing is ever written to it).
void open_terminal(Fd& master, Fd& slave) {
    master.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (master.get() < 0) throw OsError(errno, "/dev/ptmx");
    char name[128];
    if (::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0 ||
        ::ptsname_r(master.get(), name, sizeof name) != 0)
        throw OsError(errno, "/dev/ptmx");
    slave.reset(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (slave.get() < 0) throw OsError(errno, name);
}

// "git" looked up on the PATH of `env` (as subprocess does when an
// environment is given), or empty when no directory holds an executable git.
std::string find_git(const std::vector<std::string>& env) {
    std::string path = "/bin:/usr/bin";
    for (const auto& entry : env)
        if (entry.rfind("PATH=", 0) == 0) path = entry.substr(5);
    std::size_t start = 0;
    for (;;) {
        std::size_t end = path.find(':', start);
        std::string dir = path.substr(start, end == std::string::npos ? std::string::npos : end - start);
        std::string candidate = (dir.empty() ? std::string(".") : dir) + "/git";
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        if (end == std::string::npos) return {};
        start = end + 1;
    }
}

// The file a start failure concerns, as subprocess reports it: the working
// directory when it cannot be entered, otherwise the program.
std::string failed_start_filename(const std::string& cwd) {
    struct stat st;
    if (::stat(cwd.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || ::access(cwd.c_str(), X_OK) != 0) return cwd;
    return "git";
}

int pidfd_open(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

// One output stream, collected in chunks. A growing contiguous buffer would
// hold the old and the doubled copy at once (three times the output, for a
// moment) and zero-fill capacity that is never used; chunks are written
// once and joined at the end, each freed as soon as it is copied.
class Collector {
public:
    // Reads what is available on `fd`; false at end of file.
    bool drain(int fd) {
        for (;;) {
            if (chunks_.empty() || used_ == chunks_.back().size()) {
                // 64 KiB first (most outputs fit, and are then taken without a
                // copy), doubling up to 8 MiB per chunk.
                std::size_t size = chunks_.empty() ? 65536 : std::min<std::size_t>(chunks_.back().size() * 2, 8 << 20);
                chunks_.emplace_back(size, '\0');
                used_ = 0;
            }
            std::string& chunk = chunks_.back();
            const std::size_t room = chunk.size() - used_;
            ssize_t n = ::read(fd, chunk.data() + used_, room);
            if (n > 0) {
                used_ += static_cast<std::size_t>(n);
                if (static_cast<std::size_t>(n) < room) return true;  // likely empty now; let poll say
                continue;
            }
            if (n == 0) return false;
            if (errno == EINTR) continue;
            if (errno == EAGAIN) return true;
            return false;  // a read error ends this stream like end of file
        }
    }

    // Everything read, as one string.
    std::string take() {
        if (chunks_.empty()) return {};
        if (chunks_.size() == 1) {
            chunks_[0].resize(used_);
            return std::move(chunks_[0]);
        }
        std::size_t total = used_;
        for (std::size_t i = 0; i + 1 < chunks_.size(); ++i) total += chunks_[i].size();
        std::string all;
        all.reserve(total);  // pages are touched only as they are written
        for (std::size_t i = 0; i < chunks_.size(); ++i) {
            all.append(chunks_[i].data(), i + 1 == chunks_.size() ? used_ : chunks_[i].size());
            std::string().swap(chunks_[i]);
        }
        chunks_.clear();
        return all;
    }

private:
    std::vector<std::string> chunks_;
    std::size_t used_ = 0;  // bytes filled in chunks_.back()
};

void kill_and_reap(pid_t pid) {
    ::kill(-pid, SIGKILL);  // git's process group: git and whatever it started
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

int exit_code(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return -WTERMSIG(status);
    return 1;
}

}  // namespace

RunOutcome run_git_process(const std::vector<std::string>& args, const std::string& cwd,
                           const RunOptions& options) {
    RunOutcome outcome;
    Fd out_r, out_w, err_r, err_w, tty_master, tty_slave;
    make_pipe(out_r, out_w);
    make_pipe(err_r, err_w);
    // Bigger pipes mean fewer wake-ups for large outputs; failure is harmless.
    ::fcntl(out_r.get(), F_SETPIPE_SZ, 1 << 20);

    SpawnSetup setup;
    if (options.stdin_mode == StdinMode::Null) {
        posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
    } else if (options.stdin_mode == StdinMode::Terminal) {
        open_terminal(tty_master, tty_slave);
        posix_spawn_file_actions_adddup2(&setup.actions, tty_slave.get(), 0);
    }
    posix_spawn_file_actions_adddup2(&setup.actions, out_w.get(), 1);
    posix_spawn_file_actions_adddup2(&setup.actions, err_w.get(), 2);
    posix_spawn_file_actions_addchdir_np(&setup.actions, cwd.c_str());
    // Like subprocess's close_fds: git inherits nothing but 0, 1 and 2.
    posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);

    // Own process group, so a timeout can kill what git started too; signals
    // the host ignores (SIGPIPE, SIGXFSZ) back to their defaults; no blocked
    // signals inherited from the calling thread.
    sigset_t defaults, empty;
    sigemptyset(&empty);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGXFSZ);
    posix_spawnattr_setsigdefault(&setup.attr, &defaults);
    posix_spawnattr_setsigmask(&setup.attr, &empty);
    posix_spawnattr_setpgroup(&setup.attr, 0);
    posix_spawnattr_setflags(&setup.attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);

    std::vector<char*> argv;
    argv.reserve(args.size() + 2);
    static char git_name[] = "git";
    argv.push_back(git_name);
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    std::vector<char*> envp;
    char** env = environ;
    std::string program;
    if (options.env) {
        for (const auto& e : *options.env) envp.push_back(const_cast<char*>(e.c_str()));
        envp.push_back(nullptr);
        env = envp.data();
        program = find_git(*options.env);
        if (program.empty()) {
            outcome.status = RunStatus::NotFound;
            return outcome;
        }
    }

    const auto started = Clock::now();
    pid_t pid = -1;
    int rc = options.env ? ::posix_spawn(&pid, program.c_str(), &setup.actions, &setup.attr, argv.data(), env)
                         : ::posix_spawnp(&pid, "git", &setup.actions, &setup.attr, argv.data(), env);
    if (rc != 0) {
        if (rc == ENOENT) {
            outcome.status = RunStatus::NotFound;
            return outcome;
        }
        throw OsError(rc, failed_start_filename(cwd));
    }
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

    Fd pidfd(pidfd_open(pid));
    Collector out_collector, err_collector;
    bool out_open = true, err_open = true, exited = false;
    int status = 0;
    const bool limited = options.timeout.has_value();
    // NaN and values below zero leave no time at all; beyond 1e9 s (31 years)
    // the limit is cut so that the deadline stays representable.
    const double seconds = limited && *options.timeout > 0 ? std::min(*options.timeout, 1e9) : 0.0;
    const auto deadline =
        limited ? started + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))
                : Clock::time_point::max();

    for (;;) {
        if (!exited && pidfd.get() < 0 && !out_open && !err_open) {
            // No pidfd (old kernel): both pipes are closed, so git is
            // finishing; poll for its exit in short steps to keep the deadline.
            pid_t r = ::waitpid(pid, &status, WNOHANG);
            if (r == pid) exited = true;
        }
        if (exited && !out_open && !err_open) break;

        int wait_ms = -1;
        if (limited) {
            auto left = deadline - Clock::now();
            if (left <= Clock::duration::zero()) {
                if (!exited) kill_and_reap(pid);
                else ::kill(-pid, SIGKILL);
                outcome.status = RunStatus::TimedOut;
                return outcome;
            }
            auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
            wait_ms = static_cast<int>(std::min<long long>(ms, INT_MAX));
        }
        if (!exited && pidfd.get() < 0 && !out_open && !err_open)
            wait_ms = wait_ms < 0 ? 5 : std::min(wait_ms, 5);

        pollfd fds[3];
        int n = 0, out_i = -1, err_i = -1, pid_i = -1;
        if (out_open) fds[out_i = n++] = {out_r.get(), POLLIN, 0};
        if (err_open) fds[err_i = n++] = {err_r.get(), POLLIN, 0};
        if (!exited && pidfd.get() >= 0) fds[pid_i = n++] = {pidfd.get(), POLLIN, 0};
        int ready = ::poll(fds, static_cast<nfds_t>(n), wait_ms);
        if (ready < 0) {
            if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
            if (options.on_interrupt && options.on_interrupt()) {
                if (!exited) kill_and_reap(pid);
                outcome.status = RunStatus::Interrupted;
                return outcome;
            }
            continue;
        }
        if (out_i >= 0 && fds[out_i].revents) out_open = out_collector.drain(out_r.get());
        if (err_i >= 0 && fds[err_i].revents) err_open = err_collector.drain(err_r.get());
        if (pid_i >= 0 && fds[pid_i].revents) {
            pid_t r;
            while ((r = ::waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
            }
            exited = true;
        }
    }
    outcome.out = out_collector.take();
    outcome.err = err_collector.take();
    outcome.returncode = exit_code(status);
    return outcome;
}

SilentTerminal::SilentTerminal() {
    Fd master, slave;
    open_terminal(master, slave);
    // End of file on the terminal (it starts in canonical mode), so a git that
    // reads standard input does not wait for it.
    const char eof = 0x04;
    (void)!::write(master.get(), &eof, 1);
    master_ = master.release();
    slave_ = slave.release();
}

SilentTerminal::~SilentTerminal() {
    if (slave_ >= 0) ::close(slave_);
    if (master_ >= 0) ::close(master_);
}

GitResult timed_out_result() {
    GitResult r;
    r.err = TIMED_OUT_MESSAGE;
    r.returncode = 1;
    r.status = RunStatus::TimedOut;
    return r;
}

GitResult not_found_result() {
    GitResult r;
    r.err = NOT_FOUND_MESSAGE;
    r.returncode = 1;
    r.status = RunStatus::NotFound;
    return r;
}

namespace {
// The native process; nothing is logged (the C++ library has no logger).
struct NativeRunSteps {
    const std::vector<std::string>& args;
    const std::string& cwd;
    RunOptions options;
    RunOutcome start() { return run_git_process(args, cwd, options); }
    void timed_out() {}
    void not_found() {}
    void failed(int, std::string_view) {}
};
}  // namespace

GitResult run_git_command(const std::string& repo_root, const std::vector<std::string>& args,
                          std::optional<double> timeout, StdinMode stdin_mode) {
    NativeRunSteps steps{args, repo_root, {}};
    steps.options.timeout = timeout;
    steps.options.stdin_mode = stdin_mode;
    return run_with(steps);
}

}  // namespace git_utils
