// What one run of the git command runner does around the process itself:
// refuse start options that clash with the runner's own, classify the
// outcome, decode both streams, and log. Written once, over the steps that
// the extension module may route to its host (the process start, the
// logger); core/runner.cpp instantiates it with the native process.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "src/core/text.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

// The options the runner sets itself, which extra start options may not name.
inline constexpr std::string_view RUNNER_OPTIONS[] = {"cwd", "capture_output", "encoding", "errors", "timeout"};

// Throws OptionClash for the first of `names` that is one of RUNNER_OPTIONS.
template <class Names>
void check_start_options(const Names& names) {
    for (const auto& name : names)
        for (std::string_view own : RUNNER_OPTIONS)
            if (std::string_view(name) == own) throw OptionClash(std::string(own));
}

// The fixed results of a run that timed out or found no git.
GitResult timed_out_result();
GitResult not_found_result();

// One run. `Steps` provides:
//   RunOutcome start();                    // the process: raw bytes and how it ended
//   void timed_out();                      // "git command timed out after %ss: args=%s"
//   void not_found();                      // "git executable not found while running args=%s"
//   void failed(std::int64_t returncode, std::string_view stderr_stripped);  // "git command failed: ..."
template <class Steps>
GitResult run_with(Steps& steps) {
    RunOutcome outcome = steps.start();
    switch (outcome.status) {
        case RunStatus::TimedOut:
        case RunStatus::Interrupted:
            steps.timed_out();
            return timed_out_result();
        case RunStatus::NotFound:
            steps.not_found();
            return not_found_result();
        case RunStatus::Exited:
            break;
    }
    decode_git_text(outcome.out);
    decode_git_text(outcome.err);
    if (outcome.returncode != 0) steps.failed(outcome.returncode, strip(outcome.err));
    GitResult result;
    result.out = std::move(outcome.out);
    result.err = std::move(outcome.err);
    result.returncode = outcome.returncode;
    return result;
}

}  // namespace git_utils

namespace git_utils {

// A terminal for git's standard input that never sends anything: it reads end
// of file at once. Where none can be made, fd() is -1 (and on Windows handle()
// null), and git is given the host's standard input instead.
//
// POSIX: a fresh pseudo-terminal; fd() is its slave. Windows has no terminal device that a process without a console can
// hand on, and Git for Windows answers isatty(0) itself: true for a console
// input handle (GetConsoleMode succeeds) and for a pipe whose name marks it as
// an MSYS2 or Cygwin pseudo-terminal ("msys-" and "-pty" in it, the
// terminals of Git Bash and MinTTY); false for NUL, files and other pipes. So
// handle() is the reading end of such a named pipe, in message mode and
// holding only empty messages: git sees a terminal, and a read gives end of
// file. (Closing the writing end instead would also give end of file, but the
// pipe's name goes with it, and git looks at the name when it starts.)
class SilentTerminal {
public:
    SilentTerminal();
    ~SilentTerminal();
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;
#ifdef _WIN32
    void* handle() const { return handle_; }  // a HANDLE, not inheritable
    // A descriptor of the C runtime the library is built with (the host's
    // own with MSVC's /MD) for the same reading end, for the host's
    // subprocess.
    int fd() const { return fd_; }
#else
    int fd() const { return slave_; }
#endif

private:
#ifdef _WIN32
    void* handle_ = nullptr;  // the reading end
    void* writer_ = nullptr;
    int fd_ = -1;
#else
    int master_ = -1;
    int slave_ = -1;
#endif
};

}  // namespace git_utils
