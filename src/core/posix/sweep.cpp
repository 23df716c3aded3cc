// The process table on POSIX systems, and signalling what it lists: what one
// run started is found there (/proc on Linux, libproc on macOS) when the run
// must end early, stopped as it is found and then killed.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#if __has_include(<sys/syscall.h>)
#include <sys/syscall.h>  // pidfds (Linux)
#endif
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "src/core/posix/posix.hpp"

#ifdef GIT_UTILS_HAVE_LIBPROC
#include <libproc.h>
#include <sys/time.h>
#endif

namespace git_utils::process {

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

// ---- The process table: each system's own ----------------------------------
// (for_each_process and holds_write_end are used here only.)

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
    // last ')'. The state and the parent are fields 3 and 4, the start time
    // field 22 (proc(5)).
    const char* p = std::strrchr(buf, ')');
    char state;
    int ppid;
    unsigned long long started;
    if (!p || std::sscanf(p + 1, " %c %d %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu",
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

namespace {

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

}  // namespace

void sweep(pid_t git, int git_pidfd, bool git_gone, unsigned long long git_started, const PipeId (&pipes)[2],
           bool pipes_open, bool use_pidfd) noexcept {
    Sweep(git, git_pidfd, git_gone, git_started, pipes, pipes_open, use_pidfd).run();
}

}  // namespace git_utils::process
