// Between the runner (runner.cpp: deadlines, output collection, the result
// triple) and the code that starts and watches git on one platform
// (posix/process.cpp). Private to the core.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "utils/git_utils.hpp"

namespace git_utils::process {

using Clock = std::chrono::steady_clock;

// One output stream, collected in chunks. A growing contiguous buffer would
// hold the old and the doubled copy at once (three times the output, for a
// moment) and zero-fill capacity that is never used; chunks are written once
// and joined at the end, each freed as soon as it is copied.
class OutputBuffer {
public:
    // Where the next read goes: the free end of the last chunk, or a new chunk
    // (64 KiB first, doubling up to 8 MiB) when it is full. May throw
    // std::bad_alloc.
    std::span<char> room();
    // `n` bytes of the last room() were filled.
    void commit(std::size_t n) { used_ += n; }
    // Everything read, as one string; the buffer is empty afterwards.
    std::string take();
    // Drops what was read (memory back at once, on a failed run).
    void clear() {
        std::vector<std::string>().swap(chunks_);
        used_ = 0;
    }

private:
    std::vector<std::string> chunks_;
    std::size_t used_ = 0;  // bytes filled in chunks_.back()
};

struct Request {
    const std::vector<std::string>& args;  // after "git"
    const std::string& cwd;
    const Environment& env;  // git is looked up on its PATH
    StdinMode stdin_mode = StdinMode::Inherit;
    Clock::time_point deadline = Clock::time_point::max();  // max(): no limit
    const std::function<bool()>& on_interrupt;
    // False: watch git as on a kernel without pidfd (waitid polling, signals
    // by pid), so that path can be tested on any kernel.
    bool use_pidfd = true;
};

struct Outcome {
    RunStatus status = RunStatus::Exited;
    int returncode = 0;
};

// Starts git, reads both outputs into `out` and `err` until git has exited
// and both pipes are at end of file, the deadline passes or `on_interrupt`
// asks to stop. On every way out after the start (also when reading throws)
// everything the run started is killed and git is reaped. Throws SpawnError
// for start failures other than ENOENT.
Outcome run(const Request& request, OutputBuffer& out, OutputBuffer& err);

}  // namespace git_utils::process
