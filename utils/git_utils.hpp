// git_utils: the git layer of the host application, as a plain C++20 library.
//
// It answers questions about a git repository by running the `git` program
// (query commands only) and parsing what git prints. Nothing here knows about
// Python; the extension module in src/binding wraps these functions.
//
// All text is UTF-8. Text that came from git has been decoded by
// `decode_git_text`: ill-formed sequences replaced by U+FFFD and every CR LF and
// lone CR turned into LF.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace git_utils {

// ---------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------

// One file of a diff: its path on the newer side, what happened to it, its
// line counts.
struct FileChange {
    std::string path;
    std::string status;  // "added", "modified", "deleted", "renamed" or "copied"
    std::uint64_t additions = 0;
    std::uint64_t deletions = 0;
    std::optional<std::string> old_path;  // renamed and copied files only
    bool operator==(const FileChange&) const = default;
};

// The files one commit changed, and when it was committed (seconds since the
// epoch).
struct CommitChanges {
    std::int64_t timestamp = 0;
    std::vector<FileChange> files;
    bool operator==(const CommitChanges&) const = default;
};

// Lines start..end (from 1, inclusive) of a file's newer side that a diff
// touched; `added` when they are new lines replacing nothing.
struct LineSpan {
    std::int64_t start = 0;
    std::int64_t end = 0;
    bool added = false;
    bool operator==(const LineSpan&) const = default;
};

// Path -> spans, paths in the order of their first hunk.
using LineSpansByPath = std::vector<std::pair<std::string, std::vector<LineSpan>>>;

// The library's one error type: a git command failed; the message carries
// what git said.
class GitError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------------------
// Text helpers shared by the runner and the parsers
// ---------------------------------------------------------------------------

// Appends `bytes` to `out` as well-formed UTF-8: each maximal subpart of an
// ill-formed sequence becomes one U+FFFD.
void append_utf8_replacing(std::string& out, std::string_view bytes);

// Decodes git's output in place: UTF-8 with replacement, then CR LF -> LF and
// lone CR -> LF.
void decode_git_text(std::string& text);

// True when every byte is below 0x80.
bool is_ascii(std::string_view text);

// True for the white space the library trims: U+0009..U+000D, U+001C..U+001F,
// U+0020, U+0085, U+00A0, U+1680, U+2000..U+200A, U+2028, U+2029, U+202F,
// U+205F, U+3000.
bool is_space(char32_t c);

// `text` without white space at both ends (never inside).
std::string_view strip(std::string_view text);

// Value 0..9 of a Unicode decimal digit (general category Nd), or -1.
int decimal_digit_value(char32_t c);

// The value of the Unicode decimal digit at `pos` of `text` (pos < size),
// advancing past it; -1 without advancing when there is none.
int read_decimal_digit(std::string_view text, std::size_t& pos);

// Whether Python's str.isprintable() holds for the character.
bool is_printable(char32_t c);

// Decodes one UTF-8 character at `pos` of well-formed text and advances `pos`.
char32_t next_char(std::string_view text, std::size_t& pos);

// The text quoted as Python's repr() of a str writes it.
std::string python_repr(std::string_view text);

// ---------------------------------------------------------------------------
// Git command runner
// ---------------------------------------------------------------------------

// (stdout, stderr, returncode) of one git run.
struct GitResult {
    std::string out;
    std::string err;
    int returncode = 0;
    bool operator==(const GitResult&) const = default;
};

inline constexpr std::string_view TIMED_OUT_MESSAGE = "Command timed out";
inline constexpr std::string_view NOT_FOUND_MESSAGE = "git not found";
inline constexpr double DEFAULT_TIMEOUT = 30.0;

enum class RunStatus {
    Exited,       // git ran; returncode is its exit code (negative: signal)
    TimedOut,     // the deadline passed; git and everything it started were killed
    NotFound,     // the start failed with ENOENT (no git, or no directory)
    Interrupted,  // the interrupt hook asked to stop; killed as at the deadline
};

enum class StdinMode {
    Inherit,   // the caller's standard input
    Null,      // /dev/null
    Terminal,  // a fresh pseudo-terminal that never sends anything: `git shortlog`
               // without a revision summarises HEAD only when stdin is a terminal
};

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
    std::string text_;                // the entries, each followed by a NUL
    std::vector<std::size_t> starts_;  // where each begins in text_
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
    // Called when a signal interrupted the wait; returning true kills what the
    // run started and ends it with RunStatus::Interrupted. Called without any
    // lock held, with the calling thread's own signal mask.
    std::function<bool()> on_interrupt;
};

struct RunOutcome {
    RunStatus status = RunStatus::Exited;
    std::string out;  // raw bytes, not decoded
    std::string err;
    int returncode = 0;
};

// A start failure other than ENOENT (permission denied, a working directory
// that is a file, no more processes). `filename` is what the failure concerns:
// the working directory or the program.
class SpawnError : public std::system_error {
public:
    SpawnError(int err, std::string filename)
        : std::system_error(err, std::generic_category()), filename_(std::move(filename)) {}
    const std::string& filename() const { return filename_; }

private:
    std::string filename_;
};

// This process's environment, copied ("NAME=value" entries). The extension
// module takes it while it holds the interpreter lock, so that a thread that
// changes os.environ meanwhile cannot tear or free what a start reads.
Environment current_environment();

// Starts `git args...` in `cwd`, git found on the PATH of the environment it
// gets, and drains both pipes together until git has exited and both are at
// end of file. At the deadline, on an interrupt and on an exception everything
// the run started is killed; git is reaped on every way out. Throws SpawnError
// for start failures other than ENOENT. Arguments and `cwd` are byte strings
// (no NULs).
RunOutcome run_git_process(const std::vector<std::string>& args, const std::string& cwd,
                           const RunOptions& options = {});

// The runner as the library uses it: the outcome mapped to the result triple
// (timeouts and a missing git as the fixed triples) and both streams decoded.
GitResult run_git_command(const std::string& repo_root, const std::vector<std::string>& args,
                          std::optional<double> timeout = DEFAULT_TIMEOUT,
                          StdinMode stdin_mode = StdinMode::Inherit);

// The message of the GitError for a failed run: stderr trimmed, or
// "git exited with code N".
std::string git_error_message(std::string_view err, int returncode);

// stdout of a run that exited 0; GitError otherwise.
std::string git_output(const std::string& repo_root, const std::vector<std::string>& args);

// ---------------------------------------------------------------------------
// Parsers (pure functions of LF-only UTF-8 text)
// ---------------------------------------------------------------------------

// A decimal field as written: its digits (any Unicode Nd digits) and, when it
// fits, its value.
struct Decimal {
    std::string_view text;  // the digits, as they stand in the input
    std::int64_t value = 0;
    bool fits = true;       // false: value does not fit; read `text` instead
    bool negative = false;  // only timestamps carry a sign
};

// One file of a raw + numstat stream, as views into the parsed text.
struct FileChangeView {
    std::string_view path;
    std::string_view letter;  // first character of the status field, may be empty
    std::optional<std::string_view> old_path;
    Decimal additions;        // text empty and value 0 when the field was not a count
    Decimal deletions;
    // Equal paths get equal ids within one scan (for a log, across all its
    // commits), so a caller can make one object per distinct path. Ids run
    // from 0 up to the scan's count of distinct paths.
    std::uint32_t path_id = 0;
};

// Which status letters carry two paths (the source, then the destination).
using TwoPathLetters = std::function<bool(std::string_view letter)>;
bool default_two_path_letter(std::string_view letter);  // "C" and "R"

// Splits at every NUL (the output of -z): the pieces, empty ones included.
std::vector<std::string_view> split_nul(std::string_view output);

// `_file_changes`: pairs raw and numstat records by newer-side path.
std::vector<FileChangeView> file_change_views(const std::vector<std::string_view>& tokens,
                                              const TwoPathLetters& two_path = default_two_path_letter);

// `_line_count`: the value of a count field, 0 unless it is all decimal digits.
Decimal line_count(std::string_view field);

struct CommitView {
    Decimal timestamp;   // from the header, trimmed; see `valid`
    std::string_view stamp;  // the trimmed header text
    bool valid = true;   // false: stamp is not an integer (the parse fails there)
    std::size_t first_file = 0;  // its files: CommitLogScan::files[first_file, +file_count)
    std::size_t file_count = 0;
};

// A whole log as views: the commits, and every commit's files in one array
// (one allocation for the log rather than one per commit).
struct CommitLogScan {
    std::vector<CommitView> commits;
    std::vector<FileChangeView> files;
    std::size_t distinct_paths = 0;  // path ids of `files` are below this

    std::span<const FileChangeView> files_of(const CommitView& c) const {
        return std::span<const FileChangeView>(files).subspan(c.first_file, c.file_count);
    }
};

// `parse_commit_changes` as views. Stops after the first commit whose stamp
// is not an integer (its `valid` is false), since the whole parse fails there.
CommitLogScan commit_change_views(std::string_view output, const TwoPathLetters& two_path = default_two_path_letter);

// One hunk: the newer-side path it belongs to, and the numbers of its header.
struct HunkView {
    std::size_t path_index;  // index into PatchScan::plus_lines, or NO_PATH
    Decimal start;           // newer-side start line
    Decimal new_count;
    Decimal old_count;
};

// Thrown by `unquote` for an octal escape above \377.
class OctalEscapeError : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

// `_unquote`: undoes C-style escapes; octal escapes are bytes, and the result
// is read as UTF-8 with replacement. Throws OctalEscapeError.
std::string unquote(std::string_view text);

// `_patch_path`: the name on a "+++ " line (without "+++ "), or no value for
// /dev/null.
std::optional<std::string> patch_path(std::string_view text);

// `_span`.
LineSpan span(std::int64_t start, std::int64_t new_count, std::int64_t old_count);

// `parse_line_spans` before names are read: every "+++ " file-header line
// (its text after "+++ ", in patch order) and every hunk, which refers to the
// last "+++ " line before it (NO_PATH when there was none). A caller resolves
// the names with `patch_path` (or its own) and drops hunks whose name has no
// value.
inline constexpr std::size_t NO_PATH = static_cast<std::size_t>(-1);
struct PatchScan {
    std::vector<std::string_view> plus_lines;
    std::vector<HunkView> hunks;
};
PatchScan scan_patch(std::string_view patch);

// Owned-record conveniences over the views (default status table).
std::vector<FileChange> parse_file_changes(std::string_view output);
std::vector<CommitChanges> parse_commit_changes(std::string_view output);  // throws std::invalid_argument
LineSpansByPath parse_line_spans(std::string_view patch);                  // throws OctalEscapeError

// ---------------------------------------------------------------------------
// Period starts (`since` values)
// ---------------------------------------------------------------------------

inline constexpr std::string_view TIME_SPEC_FORMS =
    "a positive whole number followed by m (minutes), h (hours), d (days) or w (weeks), "
    "such as 7d or 24h, or an ISO date such as 2026-09-01";

// A local date and time without offset.
struct Moment {
    int year = 1, month = 1, day = 1, hour = 0, minute = 0, second = 0, microsecond = 0;
    bool operator==(const Moment&) const = default;
};

// "%Y-%m-%d %H:%M:%S", the fraction dropped.
std::string format_moment(const Moment& m);

// The error for a malformed since value. `out_of_calendar` tells the two messages apart.
class TimeSpecError : public std::invalid_argument {
public:
    TimeSpecError(const std::string& message, bool out_of_calendar)
        : std::invalid_argument(message), out_of_calendar_(out_of_calendar) {}
    bool out_of_calendar() const { return out_of_calendar_; }

private:
    bool out_of_calendar_;
};

// Reads the current local time from the system clock.
Moment local_now();

// `parse_time_spec`: relative forms count back from `now`; ISO instants with
// a zone are converted with the system's zone rules in force at the call.
Moment parse_time_spec(std::string_view since, const Moment& now);
Moment parse_time_spec(std::string_view since);
// Only the ISO reading (for callers that read the relative form themselves).
Moment parse_iso_time_spec(std::string_view since);

// ---------------------------------------------------------------------------
// Repository location and branches
// ---------------------------------------------------------------------------

// Raised by find_git_root for lookup failures other than "absent".
class FilesystemError : public std::system_error {
public:
    FilesystemError(int err, std::string filename)
        : std::system_error(err, std::generic_category()), filename_(std::move(filename)) {}
    const std::string& filename() const { return filename_; }

private:
    std::string filename_;
};

// The current working directory (throws FilesystemError).
std::string current_directory();

// `find_git_root`: the nearest ancestor (itself included) of the absolute,
// unresolved `start` that holds ".git"; no value when none does.
std::optional<std::string> find_git_root(std::optional<std::string> start = std::nullopt);

// `find_repo_root`: find_git_root() or the current directory.
std::string find_repo_root();

// `normalize_branch_name`.
std::optional<std::string> normalize_branch_name(std::optional<std::string_view> name);

// ---------------------------------------------------------------------------
// Queries. Each runs git through a GitBackend so a caller can route the runs
// (the extension module sends them to whatever the host installed).
// ---------------------------------------------------------------------------

class GitBackend {
public:
    virtual ~GitBackend() = default;
    // The runner with the default time limit.
    virtual GitResult run(const std::string& repo_root, const std::vector<std::string>& args,
                          StdinMode stdin_mode = StdinMode::Inherit) = 0;
    // The checked runner: stdout, or throws (GitError).
    virtual std::string output(const std::string& repo_root, const std::vector<std::string>& args) = 0;
};

// The backend that runs git directly.
GitBackend& native_backend();

// Argument lists, exactly as git receives them (after "git").
namespace args {
std::vector<std::string> diff_file_changes(std::string_view base, std::string_view head);
std::vector<std::string> log_commit_changes(std::string_view since, std::string_view max_commits,
                                            std::optional<std::string_view> ref);
std::vector<std::string> diff_line_spans(std::string_view base, std::string_view head, bool merge_base,
                                         std::string_view diff_filter);
std::vector<std::string> head_commit(bool short_id);
std::vector<std::string> resolve_commit(std::string_view name);
std::vector<std::string> count_commits(std::string_view base, std::string_view head);
std::vector<std::string> commit_before(std::string_view moment);
std::vector<std::string> authors(std::string_view since_iso);
}  // namespace args

inline constexpr std::size_t MAX_PATHSPEC_CHARS = 16000;

// `_path_batches`: lengths in code points, each path counted with one more.
std::vector<std::vector<std::string>> path_batches(const std::vector<std::string>& paths,
                                                   std::size_t budget = MAX_PATHSPEC_CHARS);

std::optional<std::string> get_head_commit(GitBackend& git, const std::string& repo_root, bool short_id = true);
std::optional<std::string> resolve_commit(GitBackend& git, const std::string& repo_root, std::string_view name);
std::int64_t count_commits(GitBackend& git, const std::string& repo_root, std::string_view base,
                           std::string_view head);
std::optional<std::string> commit_before(GitBackend& git, const std::string& repo_root, std::string_view ref,
                                         const Moment& moment);
std::vector<FileChange> diff_file_changes(GitBackend& git, const std::string& repo_root, std::string_view base,
                                          std::string_view head);
std::vector<CommitChanges> log_commit_changes(GitBackend& git, const std::string& repo_root, const Moment& since,
                                              std::optional<std::string_view> ref, std::int64_t max_commits);
LineSpansByPath diff_line_spans(GitBackend& git, const std::string& repo_root, std::string_view base,
                                std::string_view head, bool merge_base, const std::vector<std::string>& paths = {},
                                std::string_view diff_filter = "MR");

struct Author {
    std::string name;
    std::string email;
    std::int64_t commits = 0;
    bool operator==(const Author&) const = default;
};
// Reads `git shortlog -sne` output into entries (throws std::invalid_argument
// for a count that is no integer).
std::vector<Author> parse_shortlog(std::string_view output);
std::vector<Author> get_authors_for_period(GitBackend& git, const std::string& repo_root,
                                           std::string_view since = "30d");

std::optional<std::string> resolve_display_branch(GitBackend& git, const std::string& repo_root);
std::string get_default_branch(GitBackend& git, const std::string& repo_root);
bool branch_exists(GitBackend& git, const std::string& repo_root, std::string_view branch);

}  // namespace git_utils
