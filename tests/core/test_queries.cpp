// The library's own C++ queries, each called once against a small repository
// made with git: two commits by two authors on fixed dates, a tag on the
// first. The Python tests reach the same templates through the module's
// policy; these reach the native policy, its runner and its readers.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <random>

#include "src/core/runner.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {
namespace {

namespace fs = std::filesystem;

struct Repo {
    std::string root, first, second;  // the directory, the two commits
};

// git in `dir` as the given author at the given time (committer the same).
std::string git(const std::string& dir, std::vector<std::string> args, const std::string& who = "Ann",
                const std::string& date = "2020-01-01T00:00:00Z") {
    RunOptions options;
    Environment env = current_environment();
    for (const char* name : {"GIT_AUTHOR_NAME=", "GIT_COMMITTER_NAME="}) env.add(name + who);
    for (const char* name : {"GIT_AUTHOR_EMAIL=", "GIT_COMMITTER_EMAIL="}) env.add(name + who + "@example.com");
    for (const char* name : {"GIT_AUTHOR_DATE=", "GIT_COMMITTER_DATE="}) env.add(name + date);
    options.env = std::move(env);
    RunOutcome r = run_git_process(args, dir, options);
    if (r.status != RunStatus::Exited || r.returncode != 0) throw std::runtime_error("git failed: " + r.err);
    return std::string(strip(r.out));
}

void write(const fs::path& file, const std::string& text) { std::ofstream(file, std::ios::binary) << text; }

class NativeQueries : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (run_git_command(".", {"--version"}).status == RunStatus::NotFound) return;
        const fs::path dir = fs::temp_directory_path() / ("git-utils-queries-" + std::to_string(std::random_device()()));
        fs::create_directories(dir / "sub");
        repo.root = dir.string();
        git(repo.root, {"-c", "init.defaultBranch=main", "init", "-q"});
        write(dir / "a.txt", "1\n2\n3\n");
        git(repo.root, {"add", "a.txt"});
        git(repo.root, {"commit", "-q", "-m", "one"});
        git(repo.root, {"tag", "v1"});
        write(dir / "a.txt", "1\nX\n3\n");
        write(dir / "b.txt", "b\n");
        git(repo.root, {"add", "a.txt", "b.txt"});
        git(repo.root, {"commit", "-q", "-m", "two"}, "Bob", "2020-06-01T00:00:00Z");
        repo.first = git(repo.root, {"rev-parse", "v1"});
        repo.second = git(repo.root, {"rev-parse", "HEAD"});
    }
    static void TearDownTestSuite() {
        if (!repo.root.empty()) fs::remove_all(repo.root);
    }
    void SetUp() override {
        if (repo.root.empty()) GTEST_SKIP() << "no git on PATH";
    }
    static Repo repo;
};
Repo NativeQueries::repo;

std::string text(const std::vector<FileChange>& files) {
    std::string s;
    for (const FileChange& f : files)
        s += f.path + " " + f.status + " +" + std::to_string(f.additions) + " -" + std::to_string(f.deletions) + ";";
    return s;
}

// Each query once: what it gives, written out, and what it must give ("<1>"
// and "<2>" stand for the two commits' ids).
struct Case {
    const char* query;
    std::function<std::string(const Repo&)> got;
    std::string want;
};

TEST_F(NativeQueries, EachAnswersAsGitSays) {
    const auto yes_no = [](bool b) { return std::string(b ? "yes" : "no"); };
    const auto or_none = [](const std::optional<std::string>& s) { return s.value_or("none"); };
    const Case cases[] = {
        {"run_git_command", [](const Repo& r) { return run_git_command(r.root, {"status", "--porcelain"}).out; }, ""},
        {"git_output", [](const Repo& r) { return git_output(r.root, {"rev-parse", "v1"}); }, "<1>\n"},
        {"resolve_display_branch", [&](const Repo& r) { return or_none(resolve_display_branch(r.root)); }, "main"},
        {"get_default_branch (no origin)", [](const Repo& r) { return get_default_branch(r.root); }, "main"},
        {"branch_exists", [&](const Repo& r) { return yes_no(branch_exists(r.root, "main")) + yes_no(branch_exists(r.root, "x")); },
         "yesno"},
        {"get_head_commit", [&](const Repo& r) { return or_none(get_head_commit(r.root, false)); }, "<2>"},
        {"get_head_commit short",
         [&](const Repo& r) { return yes_no(r.second.starts_with(*get_head_commit(r.root)) && get_head_commit(r.root)->size() < 40); },
         "yes"},
        {"resolve_commit", [&](const Repo& r) { return or_none(resolve_commit(r.root, "v1")) + or_none(resolve_commit(r.root, "-x")); },
         "<1>none"},
        {"count_commits", [](const Repo& r) { return std::to_string(count_commits(r.root, "v1", "main")); }, "1"},
        {"commit_before", [&](const Repo& r) { return or_none(commit_before(r.root, "main", Moment{2020, 3, 1})); }, "<1>"},
        {"diff_file_changes", [](const Repo& r) { return text(diff_file_changes(r.root, "v1", "main")); },
         "a.txt modified +1 -1;b.txt added +1 -0;"},
        {"log_commit_changes",
         [](const Repo& r) {
             std::string s;
             for (const CommitChanges& c : log_commit_changes(r.root, Moment{2019, 1, 1}, "main", 5))
                 s += std::to_string(c.timestamp) + ": " + text(c.files);
             return s;
         },
         "1590969600: a.txt modified +1 -1;b.txt added +1 -0;1577836800: a.txt added +3 -0;"},
        {"diff_line_spans (modified files only)",
         [](const Repo& r) {
             std::string s;
             for (const auto& [path, spans] : diff_line_spans(r.root, "v1", "main", true, {"a.txt", "b.txt"}))
                 for (const LineSpan& span : spans)
                     s += path + " " + std::to_string(span.start) + "-" + std::to_string(span.end) + (span.added ? "+" : "") + ";";
             return s;
         },
         "a.txt 2-2;"},
        {"get_authors_for_period",
         [](const Repo& r) {
             std::string s;
             for (const Author& a : get_authors_for_period(r.root, "1000w"))
                 s += a.name + " <" + a.email + "> " + std::to_string(a.commits) + ";";
             return s;
         },
         "Ann <Ann@example.com> 1;Bob <Bob@example.com> 1;"},
        {"find_git_root", [&](const Repo& r) { return yes_no(find_git_root(r.root + "/sub/.") == r.root); }, "yes"},
        {"find_repo_root (from the current directory)",
         [&](const Repo& r) {
             const fs::path before = fs::current_path();
             fs::current_path(fs::path(r.root) / "sub");
             const std::string found = find_repo_root();
             fs::current_path(before);
             return yes_no(fs::equivalent(found, r.root));
         },
         "yes"},
    };
    for (const Case& c : cases) {
        std::string want = c.want;
        for (const auto& [mark, id] : {std::pair{"<1>", repo.first}, std::pair{"<2>", repo.second}})
            for (std::size_t at; (at = want.find(mark)) != std::string::npos;) want.replace(at, 3, id);
        EXPECT_EQ(c.got(repo), want) << c.query;
    }
    EXPECT_THROW(git_output(repo.root, {"rev-parse", "--verify", "nope"}), GitError);
}

}  // namespace
}  // namespace git_utils
