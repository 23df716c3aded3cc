// What the POSIX files of the runner share, phase by phase: start.cpp starts
// git (posix_spawn, or vfork and exec), watch.cpp watches it and its two
// outputs to the end, sweep.cpp finds and kills what a run started through
// the process table. Private to posix/.
//
// What differs between systems is chosen when the build is configured
// (GIT_UTILS_HAVE_*): Linux has pipe2, ppoll, pidfds and /proc; macOS has
// none of those, and uses POSIX_SPAWN_CLOEXEC_DEFAULT, a polled wait, git's
// exit looked for with waitid, and libproc for the processes of a run.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <utility>

#include "src/core/process.hpp"

namespace git_utils::process {

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

// ---- Starting git (start.cpp) ----------------------------------------------

// The descriptors of one run: both outputs' pipes (our read ends
// non-blocking) and, for StdinMode::Terminal, a pseudo-terminal (its master
// kept open, so the slave never reports a hang-up).
struct Plumbing {
    Fd out_read, out_write, err_read, err_write, tty_master, tty_slave;
    // The request's mode, or Inherit where no pseudo-terminal could be made.
    StdinMode stdin_mode = StdinMode::Inherit;
};
void make_plumbing(const Request& request, Plumbing& plumbing);

// Starts git as the request asks, its standard descriptors from `plumbing`.
// False when there is no git to start (or no directory to start it in);
// OsError for other start failures.
bool start_git(const Request& request, const Plumbing& plumbing, pid_t& pid);

// ---- The process table (sweep.cpp) -----------------------------------------

// Now, in the unit the process table gives start times in.
unsigned long long start_mark();

// What the system says of a process: its parent, and when it started (in the
// unit of start_mark()). False when it cannot be read (the process is gone).
struct ProcStat {
    pid_t ppid = 0;
    unsigned long long started = 0;
};
bool read_stat(pid_t pid, ProcStat& st);

// What tells one of our pipes apart from every other: Linux, its inode (both
// ends have it); macOS, the kernel's handle of its write end. 0 if unknown.
using PipeId = unsigned long long;
PipeId pipe_id(int fd);

// A pidfd for `pid` (-1 with errno where there is none: ESRCH, or ENOSYS
// where pidfds are not used).
int pidfd_open(pid_t pid);

// Sends `sig` through the pidfd when there is one (it names that process and
// no other, whatever happens to the pid), else by pid.
void send_signal(pid_t pid, int pidfd, int sig);

// Stops, then kills, everything the run of `git` started and may still be
// running (git itself stays the caller's to kill).
void sweep(pid_t git, int git_pidfd, bool git_gone, unsigned long long git_started, const PipeId (&pipes)[2],
           bool pipes_open, bool use_pidfd) noexcept;

}  // namespace git_utils::process
