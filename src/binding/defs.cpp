// The table of bound operations: names, parameters (kinds, defaults,
// annotations), return annotations, documentation and implementations.
#include "common.hpp"

namespace git_utils::binding {

using D = Default;

const std::vector<FunctionDef>& function_defs() {
    static const std::vector<FunctionDef> defs = {
        {find_git_root,
         "The repository root containing start (default: the current directory), or None.\n\n"
         "Walks up from the absolute, unresolved path to the first directory holding a .git entry\n"
         "(directory or file). Symbolic links are not resolved and '..' is not collapsed.",
         impl_find_git_root, {{"start", "Path | None", D::None_, false}}, "Path | None"},
        {find_repo_root, "The root of the repository containing the current directory, or the current directory.",
         impl_find_repo_root, {}, "Path"},
        {resolve_display_branch, "The name of the checked-out branch, or None (detached HEAD, no repository, no git).",
         impl_resolve_display_branch, {{"repo_root", "Path", D::Required, false}}, "str | None"},
        {normalize_branch_name,
         "The short form of a branch name: main, origin/main and refs/heads/main all give 'main'; None when empty.",
         impl_normalize_branch_name, {{"name", "str | None", D::Required, false}}, "str | None"},
        {parse_time_spec,
         "The local moment a period starts: 30m, 24h, 7d, 2w before now, or an ISO 8601 date or date-time.\n\n"
         "Raises ValueError naming the accepted forms for anything else.",
         impl_parse_time_spec, {{"since", "str", D::Required, false}}, "datetime"},
        {run_git_command,
         "Run git with the given arguments in repo_root and return (stdout, stderr, returncode).\n\n"
         "Both outputs are decoded as UTF-8 (invalid bytes become U+FFFD) with CR LF and CR turned into LF.\n"
         "A timeout returns ('', 'Command timed out', 1) and a missing git (or directory) returns\n"
         "('', 'git not found', 1); a non-zero exit is returned as data, never raised.",
         impl_run_git_command,
         {{"repo_root", "Path", D::Required, false}, {"args", "list[str]", D::Required, false},
          {"timeout", "int", D::Int30, false}},
         "tuple[str, str, int]"},
        {get_head_commit, "The commit id of HEAD (abbreviated unless short is false), or None.",
         impl_get_head_commit, {{"repo_root", "Path", D::Required, false}, {"short", "bool", D::True_, false}},
         "str | None"},
        {get_default_branch, "The default branch: origin's HEAD, else main, else master, else 'main'.",
         impl_get_default_branch, {{"repo_root", "Path", D::Required, false}}, "str"},
        {branch_exists, "Whether branch resolves here, or as origin/<branch>.",
         impl_branch_exists, {{"repo_root", "Path", D::Required, false}, {"branch", "str", D::Required, false}},
         "bool"},
        {get_authors_for_period,
         "Who committed since the start of the period, most commits first: dicts of name, email and commits.\n\n"
         "Raises ValueError for a malformed since value; returns [] when git fails.",
         impl_get_authors_for_period,
         {{"repo_root", "Path", D::Required, false}, {"since", "str", D::Str30d, false}}, "list[dict[str, Any]]"},
        {resolve_commit, "The full commit id a name resolves to (tags peeled), or None; names starting with '-' give None.",
         impl_resolve_commit, {{"repo_root", "Path", D::Required, false}, {"name", "str", D::Required, false}},
         "str | None"},
        {count_commits, "How many commits head has that base has not (git rev-list --count base..head).",
         impl_count_commits,
         {{"repo_root", "Path", D::Required, false}, {"base", "str", D::Required, false},
          {"head", "str", D::Required, false}},
         "int"},
        {commit_before, "The newest commit of ref's history made at or before moment (local time), or None.",
         impl_commit_before,
         {{"repo_root", "Path", D::Required, false}, {"ref", "str", D::Required, false},
          {"moment", "datetime", D::Required, false}},
         "str | None"},
        {diff_file_changes, "The files head changed since it left base (base...head), with kinds and line counts.",
         impl_diff_file_changes,
         {{"repo_root", "Path", D::Required, false}, {"base", "str", D::Required, false},
          {"head", "str", D::Required, false}},
         "list[FileChange]"},
        {log_commit_changes,
         "The commits of ref (or HEAD) made since the moment, newest first, at most max_commits, with their files.",
         impl_log_commit_changes,
         {{"repo_root", "Path", D::Required, false}, {"since", "datetime", D::Required, true},
          {"ref", "str | None", D::Required, true}, {"max_commits", "int", D::Required, true}},
         "list[CommitChanges]"},
        {diff_line_spans,
         "The newer-side lines a diff touched, per path: base...head when merge_base, else base..head.\n\n"
         "Paths are passed literally, in batches that keep each command line within the budget.",
         impl_diff_line_spans,
         {{"repo_root", "Path", D::Required, false}, {"base", "str", D::Required, false},
          {"head", "str", D::Required, false}, {"merge_base", "bool", D::Required, true},
          {"paths", "Sequence[str]", D::EmptyTuple, true}, {"diff_filter", "str", D::StrMR, true}},
         "dict[str, list[LineSpan]]"},
        {_path_batches, "Cut paths into consecutive batches of at most _MAX_PATHSPEC_CHARS characters (one more per path).",
         impl_path_batches, {{"paths", "Sequence[str]", D::Required, false}}, "list[list[str]]"},
        {_git_output,
         "Run git and return its standard output; raise GitError with git's message when it fails.",
         impl_git_output,
         {{"repo_root", "Path", D::Required, false}, {"args", "list[str]", D::Required, false}},
         "str"},
        {parse_file_changes,
         "Parse the output of git diff --raw --numstat -z into FileChange records, in git's order.\n\n"
         "Raw and numstat records are paired by the newer-side path; renames and copies carry their old path;\n"
         "binary files count 0 lines. Unrecognised tokens are skipped.",
         impl_parse_file_changes, {{"output", "str", D::Required, false}}, "list[FileChange]"},
        {parse_commit_changes,
         "Parse git log --format=%x1e%ct --raw --numstat -z into CommitChanges records, newest first.\n\n"
         "Raises ValueError when a commit header's time is not a decimal integer.",
         impl_parse_commit_changes, {{"output", "str", D::Required, false}}, "list[CommitChanges]"},
        {parse_line_spans,
         "Parse a zero-context patch (git diff -U0 --no-prefix) into the touched line spans of each file.\n\n"
         "Returns a dict from newer-side path to its LineSpan records, one per hunk, in patch order.",
         impl_parse_line_spans, {{"patch", "str", D::Required, false}}, "dict[str, list[LineSpan]]"},
        {_span, "The LineSpan of one hunk, from its newer-side start and line count and its older-side count.",
         impl_span,
         {{"start", "int", D::Required, false}, {"new_count", "int", D::Required, false},
          {"old_count", "int", D::Required, false}},
         "LineSpan"},
        {_file_changes, "Pair raw and numstat records of a NUL-split token stream into FileChange records.",
         impl_file_changes, {{"tokens", "Sequence[str]", D::Required, false}}, "list[FileChange]"},
        {_line_count, "The value of one numstat count field; 0 unless it is all decimal digits (binary files).",
         impl_line_count, {{"field", "str", D::Required, false}}, "int"},
        {_patch_path, "The path named on a '+++ ' line (without the '+++ '); None for /dev/null.",
         impl_patch_path, {{"text", "str", D::Required, false}}, "str | None"},
        {_unquote, "Undo git's C-style quoting of a path name (the text between the quotes).",
         impl_unquote, {{"text", "str", D::Required, false}}, "str"},
    };
    return defs;
}

}  // namespace git_utils::binding
