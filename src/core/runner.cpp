// The git command runner, the part that is the same on every platform: the
// deadline, the chunked collection of both outputs, the fixed results, the
// checked run's message, and the native steps of run_with(). Starting and
// watching git is in process.hpp's platform code.
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

NativeStart windows_start(const StartOptions& host) {
    using namespace win32_flags;
    constexpr std::uint32_t dropped = kCreateBreakawayFromJob | kDebugProcess | kDebugOnlyThisProcess;
    constexpr std::uint32_t added = kCreateSuspended | kCreateUnicodeEnvironment | kExtendedStartupinfoPresent;
    return {host.startup_flags | kUseStdHandles, host.show_window, (host.creation_flags & ~dropped) | added};
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
                             .on_interrupt = options.on_interrupt,
                             .start = options.start};
    process::OutputBuffer out, err;
    RunOutcome outcome = process::run(request, out, err);
    if (outcome.status == RunStatus::Exited) {
        outcome.out = out.take();
        outcome.err = err.take();
    }
    return outcome;
}

namespace {
// ("", message, 1), as a run that never got to git's exit gives it.
RunOutcome fixed_result(RunStatus status, std::string_view message) {
    RunOutcome r;
    r.err = message;
    r.returncode = 1;
    r.status = status;
    return r;
}
}  // namespace

RunOutcome timed_out_result() { return fixed_result(RunStatus::TimedOut, TIMED_OUT_MESSAGE); }
RunOutcome not_found_result() { return fixed_result(RunStatus::NotFound, NOT_FOUND_MESSAGE); }

std::string git_error_message(const RunOutcome& result) {
    const std::string_view trimmed = strip(result.err);
    if (!trimmed.empty()) return std::string(trimmed);
    return "git exited with code " + result.returncode.text();
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
    void failed(const Integer&, std::string_view) {}
};
}  // namespace

RunOutcome run_native(const std::string& repo_root, const std::vector<std::string>& args,
                      std::optional<double> timeout, StdinMode stdin_mode) {
    NativeRunSteps steps{args, repo_root, {}};
    steps.options.timeout = timeout;
    steps.options.stdin_mode = stdin_mode;
    return run_with(steps);
}

GitResult run_git_command(const std::string& repo_root, const std::vector<std::string>& args,
                          std::optional<double> timeout, StdinMode stdin_mode) {
    RunOutcome r = run_native(repo_root, args, timeout, stdin_mode);
    return {std::move(r.out), std::move(r.err), r.returncode.value, r.status};  // git's own codes fit
}

}  // namespace git_utils
