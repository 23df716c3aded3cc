// What one run of the git command runner does around the process itself:
// refuse start options that clash with the runner's own, classify the
// outcome, decode both streams, and log. Written once, over the steps that
// the extension module may route to its host (the process start, the
// logger); core/runner.cpp instantiates it with the native process.
#pragma once

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
//   void failed(int returncode, std::string_view stderr_stripped);  // "git command failed: ..."
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

// A pseudo-terminal for git's standard input that never sends anything: it
// reads end of file at once. fd() is -1 where the system has none.
class SilentTerminal {
public:
    SilentTerminal();
    ~SilentTerminal();
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;
    int fd() const { return slave_; }

private:
    int master_ = -1;
    int slave_ = -1;
};

}  // namespace git_utils
