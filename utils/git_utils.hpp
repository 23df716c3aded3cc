// git_utils: the git layer of the host application, as a plain C++20 library.
// It answers questions about a git repository by running the `git` program
// (query commands only) and parsing what git prints. Nothing here knows about
// Python; the extension module in src/binding instantiates the same
// algorithms (src/core/*.hpp) with steps that call what its host bound.
// All text is UTF-8. Text that came from git has been decoded: ill-formed
// sequences replaced by U+FFFD, and every CR LF and lone CR turned into LF.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace git_utils {

// ---- Records ---------------------------------------------------------------
// One file of a diff: its newer-side path, what happened to it, its line counts.
struct FileChange {
    std::string path;
    std::string status;  // "added", "modified", "deleted", "renamed" or "copied"
    std::uint64_t additions = 0, deletions = 0;
    std::optional<std::string> old_path;  // renamed and copied files only
    bool operator==(const FileChange&) const = default;
};

// The files one commit changed, and its commit time (seconds since the epoch).
struct CommitChanges {
    std::int64_t timestamp = 0;
    std::vector<FileChange> files;
    bool operator==(const CommitChanges&) const = default;
};

// Lines start..end (from 1, inclusive) of a file's newer side that a diff
// touched; `added` when they are new lines replacing nothing.
struct LineSpan {
    std::int64_t start = 0, end = 0;
    bool added = false;
    bool operator==(const LineSpan&) const = default;
};

// Path -> spans, paths in the order of their first hunk.
using LineSpansByPath = std::vector<std::pair<std::string, std::vector<LineSpan>>>;

// One author of a period, as `git shortlog -sne` lists them.
struct Author {
    std::string name, email;
    std::int64_t commits = 0;
    bool operator==(const Author&) const = default;
};

// ---- Errors ----------------------------------------------------------------
// A git command failed; the message carries what git said.
class GitError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A failure of the system let through (a start failure other than a missing
// git, a lookup failing with anything but "absent"): the error number, the file
// it concerns and, on Windows, the GetLastError code the number stands for.
class OsError : public std::system_error {
public:
    OsError(int err, std::string filename, unsigned long winerror = 0)
        : std::system_error(err, std::generic_category()), filename_(std::move(filename)), winerror_(winerror) {}
    const std::string& filename() const { return filename_; }
    unsigned long winerror() const { return winerror_; }

private:
    std::string filename_;
    unsigned long winerror_;
};

// A malformed `since` value. `out_of_calendar` tells the two messages apart.
class TimeSpecError : public std::invalid_argument {
public:
    TimeSpecError(const std::string& message, bool out_of_calendar)
        : std::invalid_argument(message), out_of_calendar_(out_of_calendar) {}
    bool out_of_calendar() const { return out_of_calendar_; }

private:
    bool out_of_calendar_;
};

// Other malformed input (a commit time that is no integer, an octal escape
// above \377) is reported as std::invalid_argument.
// ---- Git command runner ----------------------------------------------------
inline constexpr std::string_view TIMED_OUT_MESSAGE = "Command timed out";
inline constexpr std::string_view NOT_FOUND_MESSAGE = "git not found";
inline constexpr double DEFAULT_TIMEOUT = 30.0;

enum class RunStatus {
    Exited,    // git ran; returncode is its exit code (POSIX: negative for a signal)
    TimedOut,  // the deadline passed; git and everything it started were killed
    NotFound,  // no git on PATH, or (POSIX) the start failed with ENOENT: no directory
};

// (stdout, stderr, returncode) of one git run, both streams decoded. A run
// that timed out or found no git gives the fixed triples ("", the message, 1).
struct GitResult {
    std::string out, err;
    std::int64_t returncode = 0;
    RunStatus status = RunStatus::Exited;
    bool operator==(const GitResult&) const = default;
};

enum class StdinMode {
    Inherit,   // the caller's standard input
    Null,      // /dev/null
    Terminal,  // a terminal that never sends anything (a bare `git shortlog` summarises HEAD only then)
};

// Runs `git args...` in `repo_root` (git from PATH), at most `timeout` seconds
// (no value: no limit), then kills everything the run started. Throws OsError
// for start failures other than a missing git or directory.
GitResult run_git_command(const std::string& repo_root, const std::vector<std::string>& args,
                          std::optional<double> timeout = DEFAULT_TIMEOUT,
                          StdinMode stdin_mode = StdinMode::Inherit);

// stdout of a run that exited 0; GitError with git's message otherwise.
std::string git_output(const std::string& repo_root, const std::vector<std::string>& args);

// ---- Parsers (pure functions of LF-only UTF-8 text) ------------------------
// `git diff --raw --numstat -z` into records, raw and numstat paired by path.
std::vector<FileChange> parse_file_changes(std::string_view output);
// `git log --format=%x1e%ct --raw --numstat -z`; std::invalid_argument for a
// commit time that is no decimal integer.
std::vector<CommitChanges> parse_commit_changes(std::string_view output);
// A zero-context patch (`git diff -U0 --no-prefix`) into touched newer-side
// lines per path; std::invalid_argument for an octal escape above \377.
LineSpansByPath parse_line_spans(std::string_view patch);

// The helpers of the patch parser: a hunk's span, the name on a "+++ " line
// (no value for /dev/null), and a C-quoted name's inside unquoted.
LineSpan span(std::int64_t start, std::int64_t new_count, std::int64_t old_count);
std::optional<std::string> patch_path(std::string_view text);
std::string unquote(std::string_view text);

// ---- Period starts (`since` values) ----------------------------------------
inline constexpr std::string_view TIME_SPEC_FORMS =
    "a positive whole number followed by m (minutes), h (hours), d (days) or w (weeks), "
    "such as 7d or 24h, or an ISO date such as 2026-09-01";

// A local date and time without offset.
struct Moment {
    int year = 1, month = 1, day = 1, hour = 0, minute = 0, second = 0, microsecond = 0;
    bool operator==(const Moment&) const = default;
};

// "%Y-%m-%d %H:%M:%S", the fraction dropped; the current local time.
std::string format_moment(const Moment& m);
Moment local_now();

// Relative forms count back from `now` (the system clock when not given); ISO
// instants with a zone take the zone rules in force. Throws TimeSpecError.
Moment parse_time_spec(std::string_view since, const Moment& now);
Moment parse_time_spec(std::string_view since);

// ---- Repository location and branch names ----------------------------------
// The current working directory (throws OsError).
std::string current_directory();
// The nearest ancestor (itself included) of `start`, made absolute unresolved, that
// holds ".git"; no value when none does. OsError for lookups failing otherwise.
std::optional<std::string> find_git_root(std::optional<std::string> start = std::nullopt);

// find_git_root() or the current directory.
std::string find_repo_root();
// A branch name's short form (main of origin/main, refs/heads/main); no value when none is left.
std::optional<std::string> normalize_branch_name(std::optional<std::string_view> name);

// ---- Queries, each running git in `repo_root` with the default time limit ---
inline constexpr std::int64_t MAX_PATHSPEC_CHARS = 16000;
inline constexpr std::string_view DEFAULT_SINCE = "30d";        // the period of get_authors_for_period
inline constexpr std::string_view DEFAULT_DIFF_FILTER = "MR";  // the files diff_line_spans looks at

// Paths cut into consecutive batches whose lengths (in characters, each path
// with one more) stay within `budget`; a longer path gets a batch of its own.
std::vector<std::vector<std::string>> path_batches(const std::vector<std::string>& paths,
                                                   std::int64_t budget = MAX_PATHSPEC_CHARS);

std::optional<std::string> resolve_display_branch(const std::string& repo_root);
std::string get_default_branch(const std::string& repo_root);
bool branch_exists(const std::string& repo_root, std::string_view branch);
std::vector<Author> get_authors_for_period(const std::string& repo_root, std::string_view since = DEFAULT_SINCE);
std::optional<std::string> get_head_commit(const std::string& repo_root, bool short_id = true);
std::optional<std::string> resolve_commit(const std::string& repo_root, std::string_view name);
std::int64_t count_commits(const std::string& repo_root, std::string_view base, std::string_view head);
std::optional<std::string> commit_before(const std::string& repo_root, std::string_view ref, const Moment& moment);
std::vector<FileChange> diff_file_changes(const std::string& repo_root, std::string_view base, std::string_view head);
std::vector<CommitChanges> log_commit_changes(const std::string& repo_root, const Moment& since,
                                              std::optional<std::string_view> ref, std::int64_t max_commits);
LineSpansByPath diff_line_spans(const std::string& repo_root, std::string_view base, std::string_view head,
                                bool merge_base, const std::vector<std::string>& paths = {},
                                std::string_view diff_filter = DEFAULT_DIFF_FILTER);

}  // namespace git_utils
