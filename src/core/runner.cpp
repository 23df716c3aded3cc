// The git command runner, the part that is the same on every platform: the
// deadline, the chunked collection of both outputs, the outcome as the result
// triple, and the checked wrapper. Starting and watching git is in
// process.hpp's platform code.
#include <algorithm>
#include <chrono>
#include <utility>

#include "src/core/process.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

namespace process {

std::span<char> OutputBuffer::room() {
    if (chunks_.empty() || used_ == chunks_.back().size()) {
        // 64 KiB first (most outputs fit, and are then taken without a copy),
        // doubling up to 8 MiB per chunk.
        std::size_t size = chunks_.empty() ? 65536 : std::min<std::size_t>(chunks_.back().size() * 2, 8 << 20);
        chunks_.emplace_back(size, '\0');
        used_ = 0;
    }
    std::string& chunk = chunks_.back();
    return {chunk.data() + used_, chunk.size() - used_};
}

std::string OutputBuffer::take() {
    if (chunks_.empty()) return {};
    if (chunks_.size() == 1) {
        chunks_[0].resize(used_);
        std::string all = std::move(chunks_[0]);
        clear();
        return all;
    }
    std::size_t total = used_;
    for (std::size_t i = 0; i + 1 < chunks_.size(); ++i) total += chunks_[i].size();
    std::string all;
    all.reserve(total);  // pages are touched only as they are written
    for (std::size_t i = 0; i < chunks_.size(); ++i) {
        all.append(chunks_[i].data(), i + 1 == chunks_.size() ? used_ : chunks_[i].size());
        std::string().swap(chunks_[i]);
    }
    clear();
    return all;
}

}  // namespace process

RunOutcome run_git_process(const std::vector<std::string>& args, const std::string& cwd,
                           const RunOptions& options) {
    Environment own_env;
    if (!options.env) own_env = current_environment();
    const auto started = process::Clock::now();
    auto deadline = process::Clock::time_point::max();
    if (options.timeout) {
        // NaN and values below zero leave no time at all; beyond 1e9 s (31
        // years) the limit is cut so that the deadline stays representable.
        const double seconds = *options.timeout > 0 ? std::min(*options.timeout, 1e9) : 0.0;
        deadline = started + std::chrono::duration_cast<process::Clock::duration>(std::chrono::duration<double>(seconds));
    }
    process::Request request{.args = args,
                             .cwd = cwd,
                             .env = options.env ? *options.env : own_env,
                             .stdin_mode = options.stdin_mode,
                             .deadline = deadline,
                             .on_interrupt = options.on_interrupt};
    process::OutputBuffer out, err;
    process::Outcome done = process::run(request, out, err);
    RunOutcome outcome;
    outcome.status = done.status;
    if (done.status == RunStatus::Exited) {
        outcome.out = out.take();
        outcome.err = err.take();
        outcome.returncode = done.returncode;
    }
    return outcome;
}

GitResult run_git_command(const std::string& repo_root, const std::vector<std::string>& args,
                          std::optional<double> timeout, StdinMode stdin_mode) {
    RunOptions options;
    options.timeout = timeout;
    options.stdin_mode = stdin_mode;
    RunOutcome outcome = run_git_process(args, repo_root, options);
    switch (outcome.status) {
        case RunStatus::TimedOut:
        case RunStatus::Interrupted:
            return {"", std::string(TIMED_OUT_MESSAGE), 1};
        case RunStatus::NotFound:
            return {"", std::string(NOT_FOUND_MESSAGE), 1};
        case RunStatus::Exited:
            break;
    }
    decode_git_text(outcome.out);
    decode_git_text(outcome.err);
    return {std::move(outcome.out), std::move(outcome.err), outcome.returncode};
}

std::string git_error_message(std::string_view err, int returncode) {
    std::string_view trimmed = strip(err);
    if (!trimmed.empty()) return std::string(trimmed);
    return "git exited with code " + std::to_string(returncode);
}

std::string git_output(const std::string& repo_root, const std::vector<std::string>& args) {
    GitResult result = run_git_command(repo_root, args);
    if (result.returncode != 0) throw GitError(git_error_message(result.err, result.returncode));
    return std::move(result.out);
}

}  // namespace git_utils
