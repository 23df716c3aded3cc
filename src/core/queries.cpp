// The queries with a policy that runs git natively, their argument lists,
// and the readers they share.
#include "src/core/queries.hpp"

#include <unordered_map>

#include "src/core/changes.hpp"
#include "src/core/timespec.hpp"

namespace git_utils {

// ---------------------------------------------------------------------------
// Argument lists
// ---------------------------------------------------------------------------

namespace args {

namespace {
std::string range(std::string_view base, std::string_view dots, std::string_view head) {
    std::string r(base);
    r += dots;
    r += head;
    return r;
}
}  // namespace

std::vector<std::string> show_current_branch() { return {"branch", "--show-current"}; }

std::vector<std::string> origin_head() { return {"symbolic-ref", "refs/remotes/origin/HEAD"}; }

std::vector<std::string> verify(std::string_view name) { return {"rev-parse", "--verify", std::string(name)}; }

std::vector<std::string> head_commit(bool short_id) {
    if (short_id) return {"rev-parse", "--short", "HEAD"};
    return {"rev-parse", "HEAD"};
}

std::vector<std::string> resolve_commit(std::string_view name) {
    // ^{commit} peels tags and refuses names that lead to no commit.
    return {"rev-parse", "--verify", "--quiet", std::string(name) + "^{commit}"};
}

std::vector<std::string> count_commits(std::string_view base, std::string_view head) {
    return {"rev-list", "--count", range(base, "..", head)};
}

std::vector<std::string> commit_before(const Moment& moment, std::string_view ref) {
    return {"rev-list", "-1", "--before=" + format_moment(moment), std::string(ref)};
}

std::vector<std::string> diff_file_changes(std::string_view base, std::string_view head) {
    return {"diff", "--raw", "--numstat", "-M", "-z", "--no-textconv", range(base, "...", head)};
}

std::vector<std::string> log_commit_changes(const Moment& since, std::string_view max_commits,
                                            std::optional<std::string_view> ref) {
    std::vector<std::string> list = {"log",      "--since=" + format_moment(since),
                                     "--max-count=" + std::string(max_commits),
                                     "--no-show-signature", "--format=%x1e%ct",
                                     "--raw",    "--numstat", "-M", "-z"};
    if (ref) list.emplace_back(*ref);
    return list;
}

std::vector<std::string> patch_options() {
    // Zero context and no side prefixes: the patch form the span parser reads.
    return {"--no-color", "--no-ext-diff", "--no-textconv", "--no-prefix", "-M", "-U0"};
}

std::vector<std::string> diff_line_spans(std::string_view base, std::string_view head, bool merge_base,
                                         std::string_view diff_filter, const std::vector<std::string>& patch_options) {
    std::vector<std::string> list = {"-c", "core.quotepath=off", "--literal-pathspecs", "diff"};
    list.insert(list.end(), patch_options.begin(), patch_options.end());
    list.push_back("--diff-filter=" + std::string(diff_filter));
    if (merge_base) {
        list.push_back(range(base, "...", head));
    } else {
        list.emplace_back(base);
        list.emplace_back(head);
    }
    return list;
}

std::vector<std::string> authors(const Moment& since) {
    return {"shortlog", "--since=" + format_moment(since), "-sne"};
}

}  // namespace args

// ---------------------------------------------------------------------------
// Shared readers
// ---------------------------------------------------------------------------

Integer read_integer(std::string_view text) {
    std::optional<Integer> i = read_decimal_integer(text);
    if (!i) throw std::invalid_argument("invalid literal for int() with base 10: " + python_repr(text));
    return std::move(*i);
}

void parse_shortlog(std::string_view output, const AddAuthor& add) {
    const std::string_view text = strip(output);
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = strip(text.substr(pos, end - pos));
        pos = end + 1;

        const std::size_t tab = line.find('\t');
        if (tab == std::string_view::npos) continue;  // also every empty line
        const std::string_view rest = line.substr(tab + 1);

        const Integer commits = read_integer(strip(line.substr(0, tab)));
        const std::size_t lt = rest.find('<');
        if (lt != std::string_view::npos && rest.find('>') != std::string_view::npos) {
            // The address runs from the first "<" to the next "<" (or the
            // end), cut before its first ">".
            std::string_view email = rest.substr(lt + 1);
            email = email.substr(0, email.find('<'));
            add(strip(rest.substr(0, lt)), email.substr(0, email.find('>')), commits);
        } else {
            add(rest, {}, commits);
        }
    }
}

std::vector<std::vector<std::string>> path_batches(const std::vector<std::string>& paths, std::int64_t budget) {
    const std::vector<std::size_t> sizes =
        path_batch_sizes(paths.size(), [&](std::size_t i) { return code_point_count(paths[i]); }, budget);
    std::vector<std::vector<std::string>> batches;
    batches.reserve(sizes.size());
    auto next = paths.begin();
    for (std::size_t size : sizes) {
        batches.emplace_back(next, next + static_cast<std::ptrdiff_t>(size));
        next += static_cast<std::ptrdiff_t>(size);
    }
    return batches;
}

// ---------------------------------------------------------------------------
// The queries with git run natively
// ---------------------------------------------------------------------------

namespace {

class NativeGit {
public:
    using Text = std::string;

    explicit NativeGit(const std::string& repo_root, const std::vector<std::string>* paths = nullptr)
        : root_(repo_root), paths_(paths) {}

    RunOutcome run(std::vector<std::string> args, StdinMode mode = StdinMode::Inherit) {
        return run_native(root_, args, DEFAULT_TIMEOUT, mode);
    }
    Text output(std::vector<std::string> args) { return checked_output(*this, std::move(args)); }
    static std::string_view view(const Text& t) { return t; }

    static std::vector<FileChange> parse_file_changes(Text&& t) { return git_utils::parse_file_changes(t); }
    static std::vector<CommitChanges> parse_commit_changes(Text&& t) { return git_utils::parse_commit_changes(t); }
    static LineSpansByPath parse_line_spans(Text&& t) { return git_utils::parse_line_spans(t); }

    LineSpansByPath new_spans() { return {}; }
    void merge_spans(LineSpansByPath& into, LineSpansByPath&& from) {
        for (auto& [path, list] : from) {
            auto [it, inserted] = position_.try_emplace(path, into.size());
            if (inserted)
                into.emplace_back(std::move(path), std::move(list));
            else
                into[it->second].second = std::move(list);
        }
    }
    static std::vector<std::string> patch_options() { return args::patch_options(); }
    bool has_paths() const { return paths_ && !paths_->empty(); }
    std::vector<std::vector<std::string>> path_batches() const { return git_utils::path_batches(*paths_); }

    static Moment period_start(std::string_view since) { return parse_time_spec(since); }
    static void shortlog_failed(const RunOutcome&, std::string_view) {}

private:
    const std::string& root_;
    const std::vector<std::string>* paths_;
    std::unordered_map<std::string, std::size_t> position_;  // path -> its entry of a merged result
};

std::int64_t to_int64(const Integer& i) {
    if (!i.fits()) throw std::out_of_range("integer does not fit 64 bits: " + *i.digits);
    return i.value;
}

}  // namespace

std::string git_output(const std::string& repo_root, const std::vector<std::string>& args) {
    NativeGit git(repo_root);
    return git.output(args);
}

std::optional<std::string> resolve_display_branch(const std::string& repo_root) {
    NativeGit git(repo_root);
    return resolve_display_branch(git);
}

std::string get_default_branch(const std::string& repo_root) {
    NativeGit git(repo_root);
    return get_default_branch(git);
}

bool branch_exists(const std::string& repo_root, std::string_view branch) {
    NativeGit git(repo_root);
    return branch_exists(git, branch);
}

std::vector<Author> get_authors_for_period(const std::string& repo_root, std::string_view since) {
    NativeGit git(repo_root);
    std::vector<Author> authors;
    authors_for_period(git, since, [&](std::string_view name, std::string_view email, const Integer& commits) {
        authors.push_back(Author{std::string(name), std::string(email), to_int64(commits)});
    });
    return authors;
}

std::optional<std::string> get_head_commit(const std::string& repo_root, bool short_id) {
    NativeGit git(repo_root);
    return get_head_commit(git, short_id);
}

std::optional<std::string> resolve_commit(const std::string& repo_root, std::string_view name) {
    NativeGit git(repo_root);
    return resolve_commit(git, name);
}

std::int64_t count_commits(const std::string& repo_root, std::string_view base, std::string_view head) {
    NativeGit git(repo_root);
    return to_int64(count_commits(git, base, head));
}

std::optional<std::string> commit_before(const std::string& repo_root, std::string_view ref, const Moment& moment) {
    NativeGit git(repo_root);
    return commit_before(git, ref, moment);
}

std::vector<FileChange> diff_file_changes(const std::string& repo_root, std::string_view base, std::string_view head) {
    NativeGit git(repo_root);
    return diff_file_changes(git, base, head);
}

std::vector<CommitChanges> log_commit_changes(const std::string& repo_root, const Moment& since,
                                              std::optional<std::string_view> ref, std::int64_t max_commits) {
    NativeGit git(repo_root);
    return log_commit_changes(git, since, ref, std::to_string(max_commits));
}

LineSpansByPath diff_line_spans(const std::string& repo_root, std::string_view base, std::string_view head,
                                bool merge_base, const std::vector<std::string>& paths, std::string_view diff_filter) {
    NativeGit git(repo_root, &paths);
    return diff_line_spans(git, base, head, merge_base, diff_filter);
}

}  // namespace git_utils
