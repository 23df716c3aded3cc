// The one interface between the runner (runner.hpp and runner.cpp: the
// deadline, the output collection, the result) and the code that starts and
// watches git on one platform: posix/ (start.cpp, watch.cpp, sweep.cpp) or
// win32/process.cpp. Private to the core.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "src/core/runner.hpp"

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
    // False (Linux): start git by vfork and exec, as where posix_spawn cannot
    // (glibc before 2.34, a kernel that refuses its clone3), on any system.
    bool use_posix_spawn = true;
    StartOptions start = {};
};

// How the platform code reports the end of a run: its status and exit code,
// and whether the interrupt hook stopped it (the bytes are in the buffers).
inline RunOutcome ended(RunStatus status, std::int64_t returncode = 0, bool interrupted = false) {
    RunOutcome outcome;
    outcome.status = status;
    outcome.returncode = returncode;
    outcome.interrupted = interrupted;
    return outcome;
}

// The STARTUPINFO and CreateProcess flags of a Windows start: the host's,
// plus what the runner itself needs (its pipes as git's standard handles, a
// UTF-16 environment, an attribute list, a suspended start so that git is in
// the run's job before it can start anything), less the creation flags that
// would take git out of the runner's hands (leaving the job, running under a
// debugger that nobody drives). Plain numbers, so that every platform can
// check them; win32/process.cpp asserts they are the system's.
namespace win32_flags {
inline constexpr std::uint32_t kUseStdHandles = 0x00000100;
inline constexpr std::uint32_t kDebugProcess = 0x00000001;
inline constexpr std::uint32_t kDebugOnlyThisProcess = 0x00000002;
inline constexpr std::uint32_t kCreateSuspended = 0x00000004;
inline constexpr std::uint32_t kCreateUnicodeEnvironment = 0x00000400;
inline constexpr std::uint32_t kExtendedStartupinfoPresent = 0x00080000;
inline constexpr std::uint32_t kCreateBreakawayFromJob = 0x01000000;
}  // namespace win32_flags

struct NativeStart {
    std::uint32_t startup_flags;
    std::uint16_t show_window;
    std::uint32_t creation_flags;
    bool operator==(const NativeStart&) const = default;
};
NativeStart windows_start(const StartOptions& host);

// Starts git, reads both outputs into `out` and `err` until git has exited
// and both pipes are at end of file, the deadline passes or `on_interrupt`
// asks to stop. On every way out after the start (also when reading throws)
// everything the run started is killed and git is reaped. Throws OsError
// for start failures other than ENOENT.
RunOutcome run(const Request& request, OutputBuffer& out, OutputBuffer& err);

}  // namespace git_utils::process
