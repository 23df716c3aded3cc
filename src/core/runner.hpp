// The git command runner, private to the core and the binding: the options of
// one run, its outcome, and the run itself written once over the steps that
// the extension module may route to its host (the process start, the logger).
// runner.cpp holds what is the same on every platform (the deadline, the
// output collection, the fixed results); process.hpp is the one interface to
// the code that starts and watches git on one platform (posix/, win32/).
//
// One run, from the caller down:
//   run_git_command / the binding's run_own    -> run_with(steps)      (here)
//   steps.start() = run_git_process             -> process::run         (process.hpp)
//   process::run = start git, watch it, wait    -> posix/ or win32/
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "src/core/text.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

// ---- What one run is given -------------------------------------------------

// The environment git gets: "NAME=value" entries, held in one buffer (a copy
// of a process environment is two allocations, not one per entry).
class Environment {
public:
    Environment() = default;
    // Implicit, so that a list of entries can stand wherever an Environment
    // is taken.
    Environment(const std::vector<std::string>& entries) {  // NOLINT(google-explicit-constructor)
        for (const auto& entry : entries) add(entry);
    }
    void reserve(std::size_t entries, std::size_t bytes) {
        starts_.reserve(entries);
        text_.reserve(bytes);
    }
    void add(std::string_view entry) {
        starts_.push_back(text_.size());
        text_.append(entry);
        text_.push_back('\0');
    }
    std::size_t size() const { return starts_.size(); }
    // Entry `i`, and the same NUL-terminated.
    std::string_view operator[](std::size_t i) const {
        const std::size_t end = i + 1 < starts_.size() ? starts_[i + 1] : text_.size();
        return {text_.data() + starts_[i], end - starts_[i] - 1};
    }
    const char* c_str(std::size_t i) const { return text_.data() + starts_[i]; }

private:
    std::string text_;                 // the entries, each followed by a NUL
    std::vector<std::size_t> starts_;  // where each begins in text_
};

// This process's environment, copied ("NAME=value" entries). Nothing here
// guards it against a thread that calls setenv meanwhile: the caller holds
// the lock that such edits take (the extension module, under the GIL, the
// interpreter lock; a free-threaded CPython has none, and the module reads
// os.environ there instead).
Environment current_environment();

// What a Windows host adds to a start to keep git's console window hidden:
// its STARTUPINFO's dwFlags and wShowWindow (STARTF_USESHOWWINDOW and
// SW_HIDE) and CreateProcess's creation flags (CREATE_NO_WINDOW). The Windows
// runner applies them; other systems have no console windows and ignore them.
struct StartOptions {
    std::uint32_t startup_flags = 0;
    std::uint16_t show_window = 0;
    std::uint32_t creation_flags = 0;
    bool operator==(const StartOptions&) const = default;
};

struct RunOptions {
    // Seconds for the whole run; no value means no limit.
    std::optional<double> timeout = DEFAULT_TIMEOUT;
    // Environment for git ("NAME=value" entries), also searched for git on its
    // PATH. No value: current_environment() when the run starts; a caller
    // that guards the environment with a lock of its own copies it itself.
    std::optional<Environment> env;
    // What git's standard input is.
    StdinMode stdin_mode = StdinMode::Inherit;
    // The host's extra options for the start (Windows).
    StartOptions start;
    // Called when a signal interrupted the wait; returning true kills what the
    // run started and ends it as at the deadline, marked `interrupted`. Called
    // without any lock held, with the calling thread's own signal mask.
    // (Windows has no signals that interrupt the wait: a console's Ctrl+C
    // reaches git too.)
    std::function<bool()> on_interrupt;
};

// The options the runner sets itself, which extra start options may not name.
inline constexpr std::string_view RUNNER_OPTIONS[] = {"cwd", "capture_output", "encoding", "errors", "timeout"};

// A process-start option that the runner sets itself was given again.
class OptionClash : public std::logic_error {
public:
    explicit OptionClash(std::string option)
        : std::logic_error("got multiple values for keyword argument '" + option + "'"), option_(std::move(option)) {}
    const std::string& option() const { return option_; }

private:
    std::string option_;
};

// Throws OptionClash for the first of `names` that is one of RUNNER_OPTIONS.
template <class Names>
void check_start_options(const Names& names) {
    for (const auto& name : names)
        for (std::string_view own : RUNNER_OPTIONS)
            if (std::string_view(name) == own) throw OptionClash(std::string(own));
}

// ---- What one run gives ----------------------------------------------------

// The one result type of a run: the public triple with its status (the exit
// code an Integer, as a host's runner may return any integer), plus what
// only the runner and the binding need. There is no separate raw type: out
// and err hold git's bytes as read (from the platform code, or a host's
// subprocess) until run_with() decodes them in place, and the decoded triple
// is what leaves run_with(). The platform code fills only status, returncode
// and `interrupted`; its bytes arrive through process::OutputBuffer.
struct RunOutcome {
    std::string out, err;
    Integer returncode;
    RunStatus status = RunStatus::Exited;
    // With RunStatus::TimedOut: the interrupt hook, not the deadline, ended it.
    bool interrupted = false;
};

// Starts `git args...` in `cwd`, git found on the PATH of the environment it
// gets, and drains both pipes together until git has exited and both are at
// end of file. At the deadline, on an interrupt and on an exception everything
// the run started is killed; git is reaped on every way out. Throws OsError
// for start failures other than ENOENT. Arguments and `cwd` are byte strings
// (no NULs); on Windows UTF-8, lone surrogates included (as Python's
// "surrogatepass" writes them), given to the system as UTF-16. out and err
// are raw bytes, not decoded.
RunOutcome run_git_process(const std::vector<std::string>& args, const std::string& cwd,
                           const RunOptions& options = {});

// run_with() over run_git_process(), nothing logged: the runner of the
// native queries and of run_git_command.
RunOutcome run_native(const std::string& repo_root, const std::vector<std::string>& args,
                      std::optional<double> timeout = DEFAULT_TIMEOUT, StdinMode stdin_mode = StdinMode::Inherit);

// The fixed results of a run that timed out or found no git.
RunOutcome timed_out_result();
RunOutcome not_found_result();

// ---- The run ---------------------------------------------------------------

// One run: classify the outcome, decode both streams, log. `Steps` provides:
//   RunOutcome start();                    // the process: raw bytes and how it ended
//   void timed_out();                      // "git command timed out after %ss: args=%s"
//   void not_found();                      // "git executable not found while running args=%s"
//   void failed(const Integer& returncode, std::string_view stderr_stripped);  // "git command failed: ..."
template <class Steps>
RunOutcome run_with(Steps& steps) {
    RunOutcome outcome = steps.start();
    switch (outcome.status) {
        case RunStatus::TimedOut:
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
    return outcome;
}

// Whether a run exited with 0.
inline bool succeeded(const RunOutcome& r) { return r.returncode == 0; }

// The message of a failed run: stderr trimmed, or "git exited with code N".
std::string git_error_message(const RunOutcome& result);

// The checked run over any runner: stdout when git exited 0, GitError with
// git's message otherwise.
template <class Runner>
std::string checked_output(Runner& runner, std::vector<std::string> args) {
    RunOutcome result = runner.run(std::move(args));
    if (!succeeded(result)) throw GitError(git_error_message(result));
    return std::move(result.out);
}

// A terminal for git's standard input that never sends anything: it reads end
// of file at once. Where none can be made, fd() is -1 (and on Windows handle()
// null), and git is given the host's standard input instead. POSIX: a fresh
// pseudo-terminal, fd() its slave. Windows: see win32/process.cpp.
class SilentTerminal {
public:
    SilentTerminal();
    ~SilentTerminal();
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;
    // The reading end, as a descriptor of the C runtime the library is built
    // with (on Windows the host's own with MSVC's /MD), for a host's subprocess.
    int fd() const { return fd_; }
    // Windows: the same reading end as a HANDLE, not inheritable; null elsewhere.
    void* handle() const { return handle_; }

private:
    int fd_ = -1;
    void* handle_ = nullptr;
    // What keeps the terminal open, each platform using its own: POSIX, the
    // master's descriptor; Windows, the pipe's writing end.
    [[maybe_unused]] int master_ = -1;
    [[maybe_unused]] void* writer_ = nullptr;
};

}  // namespace git_utils
