// floor: the least any caller can pay to run one git command and collect its output.
//
//   floor [--cwd DIR] [--repeat N] [--warmup W] [--keep] -- git ARGS...
//
// Runs the command W times untimed (the first spawn of a fresh process pays
// for faulting in its own pages; a long-lived caller does not), then N times,
// one after another.  Each run: two pipes,
// posix_spawnp (PATH lookup, working directory set in the child), both pipes
// drained with poll() until end of file, waitpid.  The output is discarded
// (or, with --keep, read straight into a list of 1 MiB blocks per stream and
// freed after the run: the least a caller that must keep the whole output in
// memory pays, page faults included).  Nothing is decoded.
//
// Prints one JSON line on stdout:
//   {"runs":N,"median_ms":..,"p10_ms":..,"p90_ms":..,"min_ms":..,
//    "stdout_bytes":total,"stderr_bytes":total,"exit_codes":[...],"times_ms":[...]}
// Wall time of each run is taken from just before the pipes are made to just
// after the child is reaped.  Exit status: 0 when every run started, 127 when
// a start failed, 2 on a usage error.
//
// Build: g++ -O2 -std=c++20 -o floor floor.cpp

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <set>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct Run {
    double ms = 0;
    size_t out_bytes = 0;
    size_t err_bytes = 0;
    int exit_code = 0;
};

double now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

[[noreturn]] void die(const char* what, int err) {
    std::fprintf(stderr, "floor: %s: %s\n", what, std::strerror(err));
    std::exit(127);
}

char g_scratch[1 << 16];

// Output kept in memory: fixed-size blocks, so nothing is ever copied twice.
struct Blocks {
    static constexpr size_t kBlock = 1 << 20;
    std::vector<std::unique_ptr<char[]>> blocks;
    size_t used = kBlock;  // bytes used in the last block

    std::pair<char*, size_t> space() {
        if (used == kBlock) {
            blocks.emplace_back(new char[kBlock]);
            used = 0;
        }
        return {blocks.back().get() + used, kBlock - used};
    }
};

// Reads what is available on fd; returns false at end of file.
bool drain(int fd, size_t& total, Blocks* keep) {
    for (;;) {
        auto [buf, room] = keep ? keep->space() : std::pair<char*, size_t>{g_scratch, sizeof g_scratch};
        ssize_t n = read(fd, buf, room);
        if (n > 0) {
            total += static_cast<size_t>(n);
            if (keep) keep->used += static_cast<size_t>(n);
            if (static_cast<size_t>(n) < room) return true;
            continue;  // the pipe may hold more; read again before polling
        }
        if (n == 0) return false;
        if (errno == EINTR) continue;
        if (errno == EAGAIN) return true;
        die("read", errno);
    }
}

Run run_once(char* const* argv, const char* cwd, bool keep) {
    Run run;
    Blocks out_keep, err_keep;
    const double t0 = now_ms();

    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) die("pipe2", errno);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (cwd) posix_spawn_file_actions_addchdir_np(&actions, cwd);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);

    pid_t pid = 0;
    int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    if (rc != 0) die("posix_spawnp", rc);

    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    size_t* totals[2] = {&run.out_bytes, &run.err_bytes};
    Blocks* keeps[2] = {keep ? &out_keep : nullptr, keep ? &err_keep : nullptr};
    int open_fds = 2;
    while (open_fds > 0) {
        int n = poll(fds, 2, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            die("poll", errno);
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            if (!drain(fds[i].fd, *totals[i], keeps[i])) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_fds;
            }
        }
    }

    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) die("waitpid", errno);
    }
    run.ms = now_ms() - t0;
    run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return run;
}

// Linear interpolation between closest ranks, as the Python side computes it.
double quantile(std::vector<double> sorted, double q) {
    if (sorted.empty()) return 0;
    double pos = q * static_cast<double>(sorted.size() - 1);
    size_t lo = static_cast<size_t>(pos);
    size_t hi = std::min(lo + 1, sorted.size() - 1);
    double frac = pos - static_cast<double>(lo);
    return sorted[lo] + (sorted[hi] - sorted[lo]) * frac;
}

int usage() {
    std::fprintf(stderr, "usage: floor [--cwd DIR] [--repeat N] [--warmup W] [--keep] -- PROGRAM ARGS...\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const char* cwd = nullptr;
    long repeat = 1;
    long warmup = 0;
    bool keep = false;
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--") {
            ++i;
            break;
        } else if (a == "--cwd" && i + 1 < argc) {
            cwd = argv[++i];
        } else if (a == "--repeat" && i + 1 < argc) {
            repeat = std::strtol(argv[++i], nullptr, 10);
            if (repeat < 1) return usage();
        } else if (a == "--warmup" && i + 1 < argc) {
            warmup = std::strtol(argv[++i], nullptr, 10);
            if (warmup < 0) return usage();
        } else if (a == "--keep") {
            keep = true;
        } else {
            return usage();
        }
    }
    if (i >= argc) return usage();

    std::vector<char*> child_argv(argv + i, argv + argc);
    child_argv.push_back(nullptr);

    std::vector<double> times;
    std::set<int> codes;
    size_t out_bytes = 0, err_bytes = 0;
    times.reserve(static_cast<size_t>(repeat));
    for (long w = 0; w < warmup; ++w) run_once(child_argv.data(), cwd, keep);
    for (long r = 0; r < repeat; ++r) {
        Run run = run_once(child_argv.data(), cwd, keep);
        times.push_back(run.ms);
        out_bytes += run.out_bytes;
        err_bytes += run.err_bytes;
        codes.insert(run.exit_code);
    }

    std::vector<double> sorted = times;
    std::sort(sorted.begin(), sorted.end());
    std::printf("{\"runs\":%ld,\"median_ms\":%.6f,\"p10_ms\":%.6f,\"p90_ms\":%.6f,\"min_ms\":%.6f,"
                "\"stdout_bytes\":%zu,\"stderr_bytes\":%zu,\"exit_codes\":[",
                repeat, quantile(sorted, 0.5), quantile(sorted, 0.1), quantile(sorted, 0.9), sorted.front(),
                out_bytes, err_bytes);
    bool first = true;
    for (int c : codes) {
        std::printf(first ? "%d" : ",%d", c);
        first = false;
    }
    std::printf("],\"times_ms\":[");
    for (size_t k = 0; k < times.size(); ++k) std::printf(k ? ",%.6f" : "%.6f", times[k]);
    std::printf("]}\n");
    return 0;
}
