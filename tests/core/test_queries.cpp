// The library's own C++ queries, each called once against a small repository
// made with git: two commits by two authors on fixed dates, a tag on the
// first. The Python tests reach the same templates through the module's
// policy; these reach the native policy, its runner and its readers.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
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

// Each query once, against what git says.
TEST(NativeQueries, EachAnswersAsGitSays) {
    if (run_git_command(".", {"--version"}).status == RunStatus::NotFound) GTEST_SKIP() << "no git on PATH";
    const fs::path dir = fs::temp_directory_path() / ("git-utils-queries-" + std::to_string(std::random_device()()));
    const auto remove = [](const fs::path* d) { fs::remove_all(*d); };  // when the test ends, however it ends
    const std::unique_ptr<const fs::path, decltype(remove)> removed(&dir, remove);
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
    const fs::path before = fs::current_path();
    fs::current_path(dir / "sub");
    const std::string found = find_repo_root();
    fs::current_path(before);
    EXPECT_TRUE(fs::equivalent(found, root));  // found from the current directory
    EXPECT_EQ(find_git_root(root + "/sub/."), root);
    EXPECT_EQ(run_git_command(root, {"status", "--porcelain"}).out, "");
    EXPECT_EQ(git_output(root, {"rev-parse", "v1"}), first + "\n");
    EXPECT_EQ(resolve_display_branch(root), "main");
    EXPECT_EQ(get_default_branch(root), "main");  // no origin
    EXPECT_TRUE(branch_exists(root, "main") && !branch_exists(root, "x"));
    EXPECT_EQ(get_head_commit(root, false), second);
    const std::string short_head = *get_head_commit(root);
    EXPECT_TRUE(second.starts_with(short_head) && short_head.size() < 40) << short_head;
    EXPECT_EQ(resolve_commit(root, "v1"), first);
    EXPECT_FALSE(resolve_commit(root, "-x"));
    EXPECT_EQ(count_commits(root, "v1", "main"), 1);
    EXPECT_EQ(commit_before(root, "main", Moment{2020, 3, 1}), first);
    EXPECT_EQ(each(diff_file_changes(root, "v1", "main"), text), "a.txt modified +1 -1;b.txt added +1 -0;");
    EXPECT_EQ(each(log_commit_changes(root, Moment{2019, 1, 1}, "main", 5),
                   [](const CommitChanges& c) { return std::to_string(c.timestamp) + ": " + each(c.files, text); }),
              "1590969600: a.txt modified +1 -1;b.txt added +1 -0;1577836800: a.txt added +3 -0;");
    // Of the paths asked for, the modified files only.
    EXPECT_EQ(each(diff_line_spans(root, "v1", "main", true, {"a.txt", "b.txt"}),
                   [](const auto& file) {
                       return each(file.second, [&](const LineSpan& s) {
                           return file.first + " " + std::to_string(s.start) + "-" + std::to_string(s.end) +
                                  (s.added ? "+" : "") + ";";
                       });
                   }),
              "a.txt 2-2;");
    EXPECT_EQ(each(get_authors_for_period(root, "1000w"),
                   [](const Author& a) { return a.name + " <" + a.email + "> " + std::to_string(a.commits) + ";"; }),
              "Ann <Ann@example.com> 1;Bob <Bob@example.com> 1;");
    EXPECT_THROW(git_output(root, {"rev-parse", "--verify", "nope"}), GitError);
}

}  // namespace
}  // namespace git_utils
