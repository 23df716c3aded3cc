// The repository queries: each builds git's argument list, runs it and reads
// the answer, with its fallbacks and, for the changed-line query, its path
// batches and the merging of their spans.
//
// Each query is written once, as a template over a `Git` policy that carries
// the repository and supplies the steps a host may replace. core/queries.cpp
// instantiates them with a policy that runs git natively; the extension
// module with one that routes every run through `run_git_command` and
// `_git_output` as its namespace holds them. A policy provides:
//
//   RunOutcome run(std::vector<std::string> args, StdinMode = StdinMode::Inherit);  // the runner
//   Text output(std::vector<std::string> args);       // the checked runner: stdout, or throws
//   std::string_view view(const Text&);              // the text as UTF-8
//   FileChanges parse_file_changes(Text&&);           // the parsers
//   Commits parse_commit_changes(Text&&);
//   Spans parse_line_spans(Text&&);
//   Spans new_spans();                               // an empty result
//   void merge_spans(Spans& into, Spans&& from);     // a later path's list replaces, keeping its place
//   std::vector<std::string> patch_options();        // the options that shape a zero-context patch
//   bool has_paths();                                // whether the caller limited the diff to paths
//   std::vector<std::vector<std::string>> path_batches();  // those paths, in batches
//   Moment period_start(std::string_view since);     // a since value read as a moment
//   void shortlog_failed(const RunOutcome&, std::string_view stderr_stripped);  // the authors query's log line
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "src/core/runner.hpp"
#include "src/core/text.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

// ---------------------------------------------------------------------------
// Argument lists, exactly as git receives them (after "git")
// ---------------------------------------------------------------------------

namespace args {
std::vector<std::string> show_current_branch();
std::vector<std::string> origin_head();
std::vector<std::string> verify(std::string_view name);
std::vector<std::string> head_commit(bool short_id);
std::vector<std::string> resolve_commit(std::string_view name);
std::vector<std::string> count_commits(std::string_view base, std::string_view head);
std::vector<std::string> commit_before(const Moment& moment, std::string_view ref);
std::vector<std::string> diff_file_changes(std::string_view base, std::string_view head);
std::vector<std::string> log_commit_changes(const Moment& since, std::string_view max_commits,
                                            std::optional<std::string_view> ref);
// The options that shape the patch the span parser reads.
std::vector<std::string> patch_options();
std::vector<std::string> diff_line_spans(std::string_view base, std::string_view head, bool merge_base,
                                         std::string_view diff_filter, const std::vector<std::string>& patch_options);
std::vector<std::string> authors(const Moment& since);
}  // namespace args

// ---------------------------------------------------------------------------
// Readers shared by the queries
// ---------------------------------------------------------------------------


// A decimal integer (an optional sign, then decimal digits), or
// std::invalid_argument worded as Python's int() words it.
Integer read_integer(std::string_view text);

// How many path batches, and how many paths each: consecutive runs whose
// lengths plus one each stay within `budget`; a path longer than the budget
// makes a batch of its own. `length(i)` is the i-th path's length in
// characters.
template <class Length>
std::vector<std::size_t> path_batch_sizes(std::size_t count, Length&& length, std::int64_t budget) {
    std::vector<std::size_t> sizes(1, 0);
    std::int64_t used = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::int64_t counted = static_cast<std::int64_t>(length(i)) + 1;
        if (sizes.back() != 0 && used + counted > budget) {
            sizes.push_back(0);
            used = 0;
        }
        ++sizes.back();
        used += counted;
    }
    return sizes;
}

// Each author line of `git shortlog -sne`, in order, given to `add` as its
// name, address and count (the caller makes its own record of them: the
// public Author, or the module's dict). Lines without a TAB are skipped; a
// count that is no integer throws std::invalid_argument.
using AddAuthor = std::function<void(std::string_view name, std::string_view email, const Integer& commits)>;
void parse_shortlog(std::string_view output, const AddAuthor& add);

// ---------------------------------------------------------------------------
// The queries
// ---------------------------------------------------------------------------

namespace detail {
// stdout trimmed when git exited 0 and printed something; no value otherwise.
template <class Git>
std::optional<std::string> lenient_answer(Git& git, std::vector<std::string> args) {
    const RunOutcome result = git.run(std::move(args));
    const std::string_view answer = strip(result.out);
    if (!succeeded(result) || answer.empty()) return std::nullopt;
    return std::string(answer);
}
}  // namespace detail

// The checked-out branch; no value when HEAD is detached or git failed.
template <class Git>
std::optional<std::string> resolve_display_branch(Git& git) {
    return detail::lenient_answer(git, args::show_current_branch());
}

// origin's HEAD, else main, else master, else "main" without asking again.
template <class Git>
std::string get_default_branch(Git& git) {
    if (std::optional<std::string> target = detail::lenient_answer(git, args::origin_head())) {
        constexpr std::string_view prefix = "refs/remotes/origin/";
        if (target->starts_with(prefix)) target->erase(0, prefix.size());  // once; a target elsewhere stays whole
        return *target;
    }
    for (const char* name : {"main", "master"})
        if (succeeded(git.run(args::verify(name)))) return name;
    return "main";
}

// Whether `branch` resolves here, or (unless it already names origin) as
// origin/<branch>.
template <class Git>
bool branch_exists(Git& git, std::string_view branch) {
    if (succeeded(git.run(args::verify(branch)))) return true;
    if (branch.starts_with("origin/")) return false;
    return succeeded(git.run(args::verify("origin/" + std::string(branch))));
}

template <class Git>
std::optional<std::string> get_head_commit(Git& git, bool short_id) {
    // The exit code decides: without commits, `rev-parse HEAD` still prints
    // "HEAD" but fails.
    return detail::lenient_answer(git, args::head_commit(short_id));
}

template <class Git>
std::optional<std::string> resolve_commit(Git& git, std::string_view name) {
    // git would read a leading "-" as an option; no branch can start with one.
    if (name.empty() || name.front() == '-') return std::nullopt;
    return detail::lenient_answer(git, args::resolve_commit(name));
}

template <class Git>
Integer count_commits(Git& git, std::string_view base, std::string_view head) {
    auto out = git.output(args::count_commits(base, head));
    const std::string_view count = strip(git.view(out));
    if (count.empty()) return Integer{};
    return read_integer(count);
}

template <class Git>
std::optional<std::string> commit_before(Git& git, std::string_view ref, const Moment& moment) {
    auto out = git.output(args::commit_before(moment, ref));
    const std::string_view commit = strip(git.view(out));
    if (commit.empty()) return std::nullopt;
    return std::string(commit);
}

template <class Git>
auto diff_file_changes(Git& git, std::string_view base, std::string_view head) {
    return git.parse_file_changes(git.output(args::diff_file_changes(base, head)));
}

template <class Git>
auto log_commit_changes(Git& git, const Moment& since, std::optional<std::string_view> ref,
                        std::string_view max_commits) {
    return git.parse_commit_changes(git.output(args::log_commit_changes(since, max_commits, ref)));
}

// One diff per batch of paths (all files when none were given); the spans of
// a later batch replace an earlier batch's for the same path. A failing
// batch ends the query: no later batch runs and nothing is returned.
template <class Git>
auto diff_line_spans(Git& git, std::string_view base, std::string_view head, bool merge_base,
                     std::string_view diff_filter) {
    const std::vector<std::string> command =
        args::diff_line_spans(base, head, merge_base, diff_filter, git.patch_options());
    const std::vector<std::vector<std::string>> batches =
        git.has_paths() ? git.path_batches() : std::vector<std::vector<std::string>>(1);
    auto result = git.new_spans();
    for (const std::vector<std::string>& batch : batches) {
        std::vector<std::string> args = command;
        if (!batch.empty()) {
            args.emplace_back("--");
            args.insert(args.end(), batch.begin(), batch.end());
        }
        git.merge_spans(result, git.parse_line_spans(git.output(std::move(args))));
    }
    return result;
}

// Who committed since the start of the period, as git's summary lists them,
// each given to `add`; nobody when git fails (which is logged through the
// policy).
template <class Git>
void authors_for_period(Git& git, std::string_view since, const AddAuthor& add) {
    // A malformed since value throws here, before git runs.
    const Moment start = git.period_start(since);
    // Without a revision, shortlog summarises HEAD only when its standard
    // input is a terminal; otherwise it would wait for a log on stdin.
    const RunOutcome result = git.run(args::authors(start), StdinMode::Terminal);
    if (!succeeded(result)) {
        git.shortlog_failed(result, strip(result.err));
        return;
    }
    parse_shortlog(result.out, add);
}

}  // namespace git_utils
