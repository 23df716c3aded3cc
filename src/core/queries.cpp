// Repository queries: each builds one git command line, runs it through the
// backend it is given and reads the answer. Lenient queries go through
// `run` and answer "nothing" when git fails; strict ones go through `output`,
// which throws GitError.
#include "utils/git_utils.hpp"

#include <limits>
#include <unordered_map>

namespace git_utils {

namespace {

class NativeBackend final : public GitBackend {
public:
    GitResult run(const std::string& repo_root, const std::vector<std::string>& args,
                  StdinMode stdin_mode) override {
        return run_git_command(repo_root, args, DEFAULT_TIMEOUT, stdin_mode);
    }
    std::string output(const std::string& repo_root, const std::vector<std::string>& args) override {
        return git_output(repo_root, args);
    }
};

// Reads a whole text as Python's int() reads a str in base 10: an optional
// sign, then decimal digits (any Unicode Nd digit) with single underscores
// allowed between two digits. Surrounding white space must already be gone.
std::int64_t read_integer(std::string_view text) {
    auto invalid = [&] {
        return std::invalid_argument("invalid literal for int() with base 10: " + python_repr(text));
    };
    std::size_t pos = 0;
    bool negative = false;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
        negative = text[pos] == '-';
        ++pos;
    }
    // Accumulate towards the negative end so that INT64_MIN fits.
    constexpr std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
    std::int64_t value = 0;
    bool overflow = false;
    bool after_digit = false;    // the previous character was a digit
    bool any_digit = false;
    while (pos < text.size()) {
        char32_t c = next_char(text, pos);
        if (c == U'_') {
            if (!after_digit) throw invalid();
            after_digit = false;
            continue;
        }
        int digit = decimal_digit_value(c);
        if (digit < 0) throw invalid();
        if (value < (lowest + digit) / 10) overflow = true;
        else value = value * 10 - digit;
        after_digit = any_digit = true;
    }
    if (!any_digit || !after_digit) throw invalid();
    if (overflow || (!negative && value == lowest))
        throw std::out_of_range("integer does not fit in 64 bits: " + python_repr(text));
    return negative ? value : -value;
}

}  // namespace

GitBackend& native_backend() {
    static NativeBackend backend;
    return backend;
}

// ---------------------------------------------------------------------------
// Argument lists
// ---------------------------------------------------------------------------

namespace args {

std::vector<std::string> diff_file_changes(std::string_view base, std::string_view head) {
    std::string range(base);
    range += "...";
    range += head;
    return {"diff", "--raw", "--numstat", "-M", "-z", "--no-textconv", std::move(range)};
}

std::vector<std::string> log_commit_changes(std::string_view since, std::string_view max_commits,
                                            std::optional<std::string_view> ref) {
    std::vector<std::string> list = {"log",
                                     "--since=" + std::string(since),
                                     "--max-count=" + std::string(max_commits),
                                     "--no-show-signature",
                                     "--format=%x1e%ct",
                                     "--raw",
                                     "--numstat",
                                     "-M",
                                     "-z"};
    if (ref) list.emplace_back(*ref);
    return list;
}

std::vector<std::string> diff_line_spans(std::string_view base, std::string_view head, bool merge_base,
                                         std::string_view diff_filter) {
    // Zero context and no side prefixes: the patch form the span parser reads.
    std::vector<std::string> list = {"-c",           "core.quotepath=off", "--literal-pathspecs", "diff",
                                     "--no-color",   "--no-ext-diff",      "--no-textconv",       "--no-prefix",
                                     "-M",           "-U0",                "--diff-filter=" + std::string(diff_filter)};
    if (merge_base) {
        std::string range(base);
        range += "...";
        range += head;
        list.push_back(std::move(range));
    } else {
        list.emplace_back(base);
        list.emplace_back(head);
    }
    return list;
}

std::vector<std::string> head_commit(bool short_id) {
    if (short_id) return {"rev-parse", "--short", "HEAD"};
    return {"rev-parse", "HEAD"};
}

std::vector<std::string> resolve_commit(std::string_view name) {
    // ^{commit} peels tags and refuses names that lead to no commit.
    return {"rev-parse", "--verify", "--quiet", std::string(name) + "^{commit}"};
}

std::vector<std::string> count_commits(std::string_view base, std::string_view head) {
    std::string range(base);
    range += "..";
    range += head;
    return {"rev-list", "--count", std::move(range)};
}

std::vector<std::string> commit_before(std::string_view moment) {
    return {"rev-list", "-1", "--before=" + std::string(moment)};
}

std::vector<std::string> authors(std::string_view since_iso) {
    return {"shortlog", "--since=" + std::string(since_iso), "-sne"};
}

}  // namespace args

// ---------------------------------------------------------------------------
// Path batching
// ---------------------------------------------------------------------------

std::vector<std::vector<std::string>> path_batches(const std::vector<std::string>& paths, std::size_t budget) {
    std::vector<std::vector<std::string>> batches(1);
    std::size_t length = 0;
    for (const std::string& path : paths) {
        // Characters, not bytes: the budget is a count of code points, each
        // path with one more for the separator between arguments.
        std::size_t chars = 0;
        for (std::size_t pos = 0; pos < path.size(); ++chars) next_char(path, pos);
        if (!batches.back().empty() && length + chars + 1 > budget) {
            batches.emplace_back();
            length = 0;
        }
        batches.back().push_back(path);
        length += chars + 1;
    }
    return batches;
}

// ---------------------------------------------------------------------------
// Commit resolution and counting
// ---------------------------------------------------------------------------

std::optional<std::string> get_head_commit(GitBackend& git, const std::string& repo_root, bool short_id) {
    GitResult result = git.run(repo_root, args::head_commit(short_id));
    std::string_view commit = strip(result.out);
    // The exit code decides: without commits, `rev-parse HEAD` still prints
    // "HEAD" but fails.
    if (result.returncode != 0 || commit.empty()) return std::nullopt;
    return std::string(commit);
}

std::optional<std::string> resolve_commit(GitBackend& git, const std::string& repo_root, std::string_view name) {
    // git would read a leading "-" as an option; no branch can start with one.
    if (name.empty() || name.front() == '-') return std::nullopt;
    GitResult result = git.run(repo_root, args::resolve_commit(name));
    std::string_view commit = strip(result.out);
    if (result.returncode != 0 || commit.empty()) return std::nullopt;
    return std::string(commit);
}

std::int64_t count_commits(GitBackend& git, const std::string& repo_root, std::string_view base,
                           std::string_view head) {
    std::string out = git.output(repo_root, args::count_commits(base, head));
    std::string_view count = strip(out);
    if (count.empty()) return 0;
    return read_integer(count);
}

std::optional<std::string> commit_before(GitBackend& git, const std::string& repo_root, std::string_view ref,
                                         const Moment& moment) {
    std::vector<std::string> list = args::commit_before(format_moment(moment));
    list.emplace_back(ref);
    std::string out = git.output(repo_root, list);
    std::string_view commit = strip(out);
    if (commit.empty()) return std::nullopt;
    return std::string(commit);
}

// ---------------------------------------------------------------------------
// File and line changes
// ---------------------------------------------------------------------------

std::vector<FileChange> diff_file_changes(GitBackend& git, const std::string& repo_root, std::string_view base,
                                          std::string_view head) {
    return parse_file_changes(git.output(repo_root, args::diff_file_changes(base, head)));
}

std::vector<CommitChanges> log_commit_changes(GitBackend& git, const std::string& repo_root, const Moment& since,
                                              std::optional<std::string_view> ref, std::int64_t max_commits) {
    std::vector<std::string> list = args::log_commit_changes(format_moment(since), std::to_string(max_commits), ref);
    return parse_commit_changes(git.output(repo_root, list));
}

LineSpansByPath diff_line_spans(GitBackend& git, const std::string& repo_root, std::string_view base,
                                std::string_view head, bool merge_base, const std::vector<std::string>& paths,
                                std::string_view diff_filter) {
    const std::vector<std::string> base_command = args::diff_line_spans(base, head, merge_base, diff_filter);
    std::vector<std::vector<std::string>> batches =
        paths.empty() ? std::vector<std::vector<std::string>>(1) : path_batches(paths);

    LineSpansByPath result;
    std::unordered_map<std::string, std::size_t> position;  // path -> index in `result`
    for (const std::vector<std::string>& batch : batches) {
        std::vector<std::string> command = base_command;
        if (!batch.empty()) {
            command.emplace_back("--");
            command.insert(command.end(), batch.begin(), batch.end());
        }
        // A failing batch throws out of the loop: no partial result.
        LineSpansByPath spans = parse_line_spans(git.output(repo_root, command));
        for (auto& [path, list] : spans) {
            // A later batch replaces a path's spans; the path keeps its place.
            auto [it, inserted] = position.try_emplace(path, result.size());
            if (inserted) result.emplace_back(std::move(path), std::move(list));
            else result[it->second].second = std::move(list);
        }
    }
    return result;
}

// ---------------------------------------------------------------------------
// Authors of a period
// ---------------------------------------------------------------------------

std::vector<Author> parse_shortlog(std::string_view output) {
    std::vector<Author> authors;
    std::string_view text = strip(output);
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = strip(text.substr(pos, end - pos));
        pos = end + 1;

        std::size_t tab = line.find('\t');
        if (tab == std::string_view::npos) continue;  // also every empty line
        std::string_view count_str = strip(line.substr(0, tab));
        std::string_view rest = line.substr(tab + 1);

        Author author;
        author.commits = read_integer(count_str);
        std::size_t lt = rest.find('<');
        if (lt != std::string_view::npos && rest.find('>') != std::string_view::npos) {
            author.name = strip(rest.substr(0, lt));
            // The address runs from the first "<" to the next "<" (or the
            // end), cut before its first ">".
            std::string_view email = rest.substr(lt + 1);
            email = email.substr(0, email.find('<'));
            email = email.substr(0, email.find('>'));
            author.email = email;
        } else {
            author.name = rest;
        }
        authors.push_back(std::move(author));
    }
    return authors;
}

std::vector<Author> get_authors_for_period(GitBackend& git, const std::string& repo_root, std::string_view since) {
    // A malformed since value (TimeSpecError) throws here, before git runs.
    Moment since_moment = parse_time_spec(since);
    // Without a revision, shortlog summarises HEAD only when its standard
    // input is a terminal; otherwise it would wait for a log on stdin.
    GitResult result = git.run(repo_root, args::authors(format_moment(since_moment)), StdinMode::Terminal);
    if (result.returncode != 0) return {};
    return parse_shortlog(result.out);
}

}  // namespace git_utils
