// Watching a started git to the end on POSIX systems: a wait on non-blocking
// read ends (ppoll) that looks at the deadline on every wake-up, and one
// owner of the child that, on every way out, kills what the run started and
// reaps git. process::run, the platform's whole run, is here.
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <system_error>

#include "src/core/posix/posix.hpp"

namespace git_utils::process {
namespace {

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
        sweep(pid_, pidfd_.get(), gone_, started_, ids, pipes_open, use_pidfd_);
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

// The wait until git has exited and both streams are at end of file, the
// deadline passed or the interrupt hook asked to stop.
RunOutcome watch(const Request& request, SignalGate& gate, Child& child, Stream (&streams)[2]) {
    const bool limited = request.deadline != Clock::time_point::max();
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
    return ended(RunStatus::Exited, child.reap());
}

}  // namespace

RunOutcome run(const Request& request, OutputBuffer& out, OutputBuffer& err) {
    SignalGate gate;
    Plumbing plumbing;
    make_plumbing(request, plumbing);
    Stream streams[2] = {{std::move(plumbing.out_read), out}, {std::move(plumbing.err_read), err}};
    const int pipes[2] = {streams[0].fd.get(), streams[1].fd.get()};

    const unsigned long long started = start_mark();
    pid_t pid = -1;
    if (!start_git(request, plumbing, pid)) return ended(RunStatus::NotFound);
    Child child(pid, started, request.use_pidfd, pipes);
    plumbing.out_write.reset();
    plumbing.err_write.reset();
    plumbing.tty_slave.reset();
    if (plumbing.tty_master.get() >= 0) {
        // End of file on the terminal (it starts in canonical mode): git
        // reads stdin only when it has no revision to summarise (outside a
        // repository, no commits yet), and then it must not wait for input.
        const char eof = 0x04;
        (void)!::write(plumbing.tty_master.get(), &eof, 1);
    }
    try {
        return watch(request, gate, child, streams);
    } catch (...) {
        out.clear();  // the memory may be what the sweep needs
        err.clear();
        child.stop_everything(true);
        throw;
    }
}

}  // namespace git_utils::process
