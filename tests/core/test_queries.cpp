// The library's own C++ queries, each called once against a small repository
// made with git: two commits by two authors on fixed dates, a tag on the
// first. The Python tests reach the same templates through the module's
// policy; these reach the native policy, its runner and its readers.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "src/core/runner.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {
namespace {

namespace fs = std::filesystem;

// git in `dir` as the given author at the given time (committer the same).
std::string git(const std::string& dir, std::vector<std::string> args, const std::string& who = "Ann",
                const std::string& date = "2020-01-01T00:00:00Z") {
    RunOptions options;
    options.env = current_environment();
    for (const char* role : {"GIT_AUTHOR_", "GIT_COMMITTER_"})
        for (const std::string& field : {"NAME=" + who, "EMAIL=" + who + "@example.com", "DATE=" + date})
            options.env->add(role + field);
    RunOutcome r = run_git_process(args, dir, options);
    if (r.status != RunStatus::Exited || r.returncode != 0) throw std::runtime_error("git failed: " + r.err);
    return std::string(strip(r.out));
}

void write(const fs::path& file, const std::string& text) { std::ofstream(file, std::ios::binary) << text; }

// What `f` writes of each item, one after another.
template <class Items, class F>
std::string each(const Items& items, F f) {
    std::string s;
    for (const auto& item : items) s += f(item);
    return s;
}
std::string text(const FileChange& f) {
    return f.path + " " + f.status + " +" + std::to_string(f.additions) + " -" + std::to_string(f.deletions) + ";";
}

// Each query once: what it gives, written out, and what it must give.
struct Case {
    const char* query;
    std::string got, want;
};

TEST(NativeQueries, EachAnswersAsGitSays) {
    if (run_git_command(".", {"--version"}).status == RunStatus::NotFound) GTEST_SKIP() << "no git on PATH";
    const fs::path dir = fs::temp_directory_path() / ("git-utils-queries-" + std::to_string(std::random_device()()));
    struct Removed {
        fs::path dir;
        ~Removed() { fs::remove_all(dir); }
    } removed{dir};
    fs::create_directories(dir / "sub");
    const std::string root = dir.string();
    git(root, {"-c", "init.defaultBranch=main", "init", "-q"});
    write(dir / "a.txt", "1\n2\n3\n");
    git(root, {"add", "a.txt"});
    git(root, {"commit", "-q", "-m", "one"});
    git(root, {"tag", "v1"});
    write(dir / "a.txt", "1\nX\n3\n");
    write(dir / "b.txt", "b\n");
    git(root, {"add", "a.txt", "b.txt"});
    git(root, {"commit", "-q", "-m", "two"}, "Bob", "2020-06-01T00:00:00Z");
    const std::string first = git(root, {"rev-parse", "v1"}), second = git(root, {"rev-parse", "HEAD"});
    const auto yes_no = [](bool b) { return std::string(b ? "yes" : "no"); };
    const auto or_none = [](const std::optional<std::string>& s) { return s.value_or("none"); };
    const fs::path before = fs::current_path();
    fs::current_path(fs::path(root) / "sub");
    const std::string found = find_repo_root();
    fs::current_path(before);
    const std::string short_head = *get_head_commit(root);
    const Case cases[] = {
        {"run_git_command", run_git_command(root, {"status", "--porcelain"}).out, ""},
        {"git_output", git_output(root, {"rev-parse", "v1"}), first + "\n"},
        {"resolve_display_branch", or_none(resolve_display_branch(root)), "main"},
        {"get_default_branch (no origin)", get_default_branch(root), "main"},
        {"branch_exists", yes_no(branch_exists(root, "main")) + yes_no(branch_exists(root, "x")), "yesno"},
        {"get_head_commit", or_none(get_head_commit(root, false)), second},
        {"get_head_commit short", yes_no(second.starts_with(short_head) && short_head.size() < 40), "yes"},
        {"resolve_commit", or_none(resolve_commit(root, "v1")) + or_none(resolve_commit(root, "-x")), first + "none"},
        {"count_commits", std::to_string(count_commits(root, "v1", "main")), "1"},
        {"commit_before", or_none(commit_before(root, "main", Moment{2020, 3, 1})), first},
        {"diff_file_changes", each(diff_file_changes(root, "v1", "main"), text), "a.txt modified +1 -1;b.txt added +1 -0;"},
        {"log_commit_changes",
         each(log_commit_changes(root, Moment{2019, 1, 1}, "main", 5),
              [](const CommitChanges& c) { return std::to_string(c.timestamp) + ": " + each(c.files, text); }),
         "1590969600: a.txt modified +1 -1;b.txt added +1 -0;1577836800: a.txt added +3 -0;"},
        {"diff_line_spans (modified files only)",
         each(diff_line_spans(root, "v1", "main", true, {"a.txt", "b.txt"}),
              [](const auto& file) {
                  return each(file.second, [&](const LineSpan& span) {
                      return file.first + " " + std::to_string(span.start) + "-" + std::to_string(span.end) +
                             (span.added ? "+" : "") + ";";
                  });
              }),
         "a.txt 2-2;"},
        {"get_authors_for_period",
         each(get_authors_for_period(root, "1000w"),
              [](const Author& a) { return a.name + " <" + a.email + "> " + std::to_string(a.commits) + ";"; }),
         "Ann <Ann@example.com> 1;Bob <Bob@example.com> 1;"},
        {"find_git_root", yes_no(find_git_root(root + "/sub/.") == root), "yes"},
        {"find_repo_root (from the current directory)", yes_no(fs::equivalent(found, root)), "yes"},
    };
    for (const Case& c : cases) EXPECT_EQ(c.got, c.want) << c.query;
    EXPECT_THROW(git_output(root, {"rev-parse", "--verify", "nope"}), GitError);
}

}  // namespace
}  // namespace git_utils
