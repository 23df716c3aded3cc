// Repository location, branch names and the queries, against real git
// repositories built in a temporary directory, plus a recording backend that
// checks the exact command lines and scripted answers.
#include "utils/git_utils.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace git_utils;
namespace fs = std::filesystem;
using Args = std::vector<std::string>;

namespace {

std::string make_temp_dir() {
    std::string pattern = (fs::temp_directory_path() / "git_utils_repo_XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

void write_file(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// Runs git in `dir` with a fixed identity, dates and no user configuration;
// returns its trimmed standard output.
std::string git_in(const std::string& dir, const std::string& args, const std::string& date = "2020-01-01T00:00:00+0000",
                   const std::string& who = "Alice <alice@example.com>") {
    std::string name = who.substr(0, who.find(" <"));
    std::string email = who.substr(who.find('<') + 1, who.find('>') - who.find('<') - 1);
    std::string cmd = "cd '" + dir + "' && env -u GIT_DIR -u GIT_WORK_TREE HOME='" + dir +
                      "' GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null GIT_AUTHOR_DATE=" + date +
                      " GIT_COMMITTER_DATE=" + date + " GIT_AUTHOR_NAME='" + name + "' GIT_AUTHOR_EMAIL='" + email +
                      "' GIT_COMMITTER_NAME='" + name + "' GIT_COMMITTER_EMAIL='" + email + "' git " + args +
                      " 2>/dev/null";
    std::string out;
    FILE* pipe = ::popen(cmd.c_str(), "r");
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
    if (::pclose(pipe) != 0) throw std::runtime_error("git failed: " + args);
    return std::string(strip(out));
}

std::string numbered_lines(int from, int to) {
    std::string text;
    for (int k = from; k <= to; ++k) text += "line " + std::to_string(k) + "\n";
    return text;
}

struct Call {
    Args args;
    StdinMode mode;
    bool checked;  // through `output`
};

// Records every run; answers from `reply` when set, else runs real git.
class RecordingBackend : public GitBackend {
public:
    std::vector<Call> calls;
    std::function<GitResult(const Args&)> reply;

    GitResult run(const std::string& root, const Args& args, StdinMode mode) override {
        calls.push_back({args, mode, false});
        return reply ? reply(args) : native_backend().run(root, args, mode);
    }
    std::string output(const std::string& root, const Args& args) override {
        calls.push_back({args, StdinMode::Inherit, true});
        if (!reply) return native_backend().output(root, args);
        GitResult r = reply(args);
        if (r.returncode != 0) throw GitError(r.err);
        return r.out;
    }
};

struct CwdGuard {
    std::string saved = current_directory();
    ~CwdGuard() { (void)::chdir(saved.c_str()); }
};

}  // namespace

namespace git_utils {
void PrintTo(const Author& a, std::ostream* os) { *os << "{" << a.name << " <" << a.email << "> " << a.commits << "}"; }
}  // namespace git_utils

// ---------------------------------------------------------------------------
// Root discovery
// ---------------------------------------------------------------------------

class RootsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        tmp = make_temp_dir();
        fs::create_directories(tmp + "/repo/.git");
        fs::create_directories(tmp + "/repo/sub/deeper");
        write_file(tmp + "/repo/file.txt", "x");
        write_file(tmp + "/repo/wt/.git", "gitdir: elsewhere\n");  // a worktree's marker file
        fs::create_directories(tmp + "/outside/dangling");
        fs::create_symlink(tmp + "/missing", tmp + "/outside/dangling/.git");
        fs::create_directory_symlink(tmp + "/repo", tmp + "/link");
    }
    static void TearDownTestSuite() { fs::remove_all(tmp); }
    static inline std::string tmp;
};

TEST_F(RootsTest, WalksTheWrittenPath) {
    struct Case {
        std::string start;
        std::optional<std::string> root;
    };
    const std::vector<Case> cases = {
        {"/repo", "/repo"},
        {"/repo/sub/deeper", "/repo"},
        {"/repo//sub/./deeper/", "/repo"},     // plain form: no empty or "." parts
        {"/repo/sub/..", "/repo/sub/.."},       // ".." kept; /repo/sub/../.git exists
        {"/link/sub", "/link"},                 // the link's path, not its target
        {"/repo/wt/x", "/repo/wt"},             // .git file, nearer than the outer repo
        {"/repo/file.txt/x", "/repo"},          // ENOTDIR on the way counts as absent
        {"/repo/no/such/dir", "/repo"},
        {std::string("/repo/a\0b", 9), "/repo"},  // unrepresentable name counts as absent
    };
    for (const Case& c : cases) {
        std::optional<std::string> expected;
        if (c.root) expected = tmp + *c.root;
        EXPECT_EQ(find_git_root(tmp + c.start), expected) << c.start;
    }
    if (find_git_root("/")) GTEST_SKIP() << "this system has a .git above the temp dir";
    EXPECT_EQ(find_git_root(tmp + "/outside/dangling/x"), std::nullopt);  // dangling .git link
}

TEST_F(RootsTest, RelativeStartAndCurrentDirectory) {
    CwdGuard guard;
    ASSERT_EQ(::chdir(tmp.c_str()), 0);
    std::string here = current_directory();
    EXPECT_EQ(find_git_root("repo/sub"), here + "/repo");
    EXPECT_EQ(find_git_root(""), find_git_root(here));
    ASSERT_EQ(::chdir("repo/sub/deeper"), 0);
    EXPECT_EQ(find_git_root(), here + "/repo");
    EXPECT_EQ(find_repo_root(), here + "/repo");
    ASSERT_EQ(::chdir(here.c_str()), 0);
    if (!find_git_root("/")) {
        EXPECT_EQ(find_repo_root(), here);
    }
}

TEST_F(RootsTest, NameTooLongThrows) {
    std::string long_name = tmp + "/" + std::string(300, 'n') + "/sub";
    try {
        find_git_root(long_name);
        FAIL() << "expected FilesystemError";
    } catch (const FilesystemError& e) {
        EXPECT_EQ(e.code().value(), ENAMETOOLONG);
        EXPECT_EQ(e.filename(), long_name + "/.git");
    }
}

TEST_F(RootsTest, PermissionDeniedThrows) {
    if (::geteuid() == 0) GTEST_SKIP() << "root ignores directory permissions";
    fs::create_directories(tmp + "/locked/inner");
    ::chmod((tmp + "/locked").c_str(), 0);
    EXPECT_THROW(find_git_root(tmp + "/locked/inner"), FilesystemError);
    ::chmod((tmp + "/locked").c_str(), 0755);
}

// ---------------------------------------------------------------------------
// Branch names
// ---------------------------------------------------------------------------

TEST(BranchNames, ShortForm) {
    const std::vector<std::pair<std::optional<std::string_view>, std::optional<std::string>>> cases = {
        {std::nullopt, std::nullopt}, {"", std::nullopt}, {"   ", std::nullopt}, {"main", "main"},
        {"origin/main", "main"}, {"refs/heads/main", "main"}, {"refs/remotes/origin/main", "main"},
        {"remotes/origin/main", "main"}, {"\u3000 main\t\n", "main"}, {"origin/origin/main", "main"},
        {"origin/refs/heads/x", "x"}, {"refs/remotes/upstream/main", "upstream/main"},
        {"upstream/main", "upstream/main"}, {"Origin/main", "Origin/main"},
        {"origin/ main", " main"},  // white space is trimmed once, before the prefixes go
        {"origin/", std::nullopt}, {"refs/heads/", std::nullopt},
    };
    for (const auto& [name, expected] : cases) EXPECT_EQ(normalize_branch_name(name), expected) << name.value_or("-");
}

// Small repositories for the default branch and existence checks.
class BranchRepoTest : public ::testing::Test {
protected:
    void SetUp() override { tmp = make_temp_dir(); }
    void TearDown() override { fs::remove_all(tmp); }
    std::string repo(const std::string& name, const std::string& initial, const std::vector<std::string>& more = {}) {
        std::string dir = tmp + "/" + name;
        fs::create_directories(dir);
        git_in(dir, "init -q -b " + initial);
        write_file(dir + "/f", "f\n");
        git_in(dir, "add f");
        git_in(dir, "commit -q -m one");
        for (const std::string& cmd : more) git_in(dir, cmd);
        return dir;
    }
    std::string tmp;
};

TEST_F(BranchRepoTest, DefaultBranch) {
    const std::string origin = "remote add origin https://example.invalid/r.git";
    struct Case {
        std::string dir;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {repo("trunk", "main",
              {"branch master", origin, "update-ref refs/remotes/origin/trunk HEAD",
               "symbolic-ref refs/remotes/origin/HEAD refs/remotes/origin/trunk"}),
         "trunk"},
        {repo("elsewhere", "dev", {"update-ref refs/other/x HEAD", "symbolic-ref refs/remotes/origin/HEAD refs/other/x"}),
         "refs/other/x"},
        {repo("master", "master"), "master"},
        {repo("both", "master", {"branch main"}), "main"},
        {repo("neither", "dev"), "main"},
        {tmp, "main"},  // not a repository
    };
    for (const Case& c : cases) EXPECT_EQ(get_default_branch(native_backend(), c.dir), c.expected) << c.dir;
}

TEST_F(BranchRepoTest, ExistsLocallyOrOnOrigin) {
    std::string dir = repo("r", "dev", {"tag v1", "update-ref refs/remotes/origin/feature HEAD",
                                        "update-ref refs/remotes/origin/main HEAD"});
    std::string id = git_in(dir, "rev-parse HEAD");
    struct Case {
        std::string branch;
        bool exists;
        std::size_t runs;
    };
    const std::vector<Case> cases = {
        {"dev", true, 1},           {"v1", true, 1},      {id, true, 1},
        {"feature", true, 2},       {"main", true, 2},    {"origin/feature", true, 1},
        {"origin/nothing", false, 1}, {"nothing", false, 2},
    };
    for (const Case& c : cases) {
        RecordingBackend git;
        EXPECT_EQ(branch_exists(git, dir, c.branch), c.exists) << c.branch;
        EXPECT_EQ(git.calls.size(), c.runs) << c.branch;
    }
    EXPECT_FALSE(branch_exists(native_backend(), tmp, "dev"));
    EXPECT_EQ(resolve_display_branch(native_backend(), dir), "dev");
    git_in(dir, "checkout -q --detach");
    EXPECT_EQ(resolve_display_branch(native_backend(), dir), std::nullopt);
    EXPECT_EQ(resolve_display_branch(native_backend(), tmp), std::nullopt);
}

// ---------------------------------------------------------------------------
// Queries on a shared history:
//   main:    c1 (2020-01-01, Alice)  c2 (2020-06-01, Bob)  c5 (2020-09-01, Alice)
//   feature: from c2, c3 (2021-01-01) renames b.txt to c.txt, edits a.txt
//            line 5, adds d.txt.  Annotated tag v1 on c1.
// ---------------------------------------------------------------------------

class QueryTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        tmp = make_temp_dir();
        dir = tmp + "/repo";
        fs::create_directories(dir);
        git_in(dir, "init -q -b main");
        write_file(dir + "/a.txt", numbered_lines(1, 10));
        write_file(dir + "/b.txt", numbered_lines(100, 120));
        git_in(dir, "add .");
        git_in(dir, "commit -q -m c1", "2020-01-01T12:00:00+0000");
        c1 = git_in(dir, "rev-parse HEAD");
        git_in(dir, "tag -a v1 -m release", "2020-01-02T12:00:00+0000");
        write_file(dir + "/a.txt", "line 1\nLINE 2\n" + numbered_lines(3, 10));
        git_in(dir, "commit -q -a -m c2", "2020-06-01T12:00:00+0000", "Bob <bob@example.com>");
        c2 = git_in(dir, "rev-parse HEAD");
        git_in(dir, "checkout -q -b feature");
        git_in(dir, "mv b.txt c.txt");
        write_file(dir + "/a.txt", "line 1\nLINE 2\n" + numbered_lines(3, 4) + "FIVE\n" + numbered_lines(6, 10));
        write_file(dir + "/d.txt", "new\nfile\n");
        git_in(dir, "add -A");
        git_in(dir, "commit -q -m c3", "2021-01-01T12:00:00+0000");
        c3 = git_in(dir, "rev-parse HEAD");
        git_in(dir, "checkout -q main");
        write_file(dir + "/e.txt", "e\n");
        git_in(dir, "add e.txt");
        git_in(dir, "commit -q -m c5", "2020-09-01T12:00:00+0000");
        c5 = git_in(dir, "rev-parse HEAD");
    }
    static void TearDownTestSuite() { fs::remove_all(tmp); }
    static inline std::string tmp, dir, c1, c2, c3, c5;
    GitBackend& git = native_backend();
};

TEST_F(QueryTest, HeadAndResolve) {
    RecordingBackend rec;  // real git, recorded
    EXPECT_EQ(get_head_commit(rec, dir, false), c5);
    std::optional<std::string> short_id = get_head_commit(rec, dir);
    EXPECT_EQ(resolve_commit(rec, dir, "v1"), c1);  // annotated tag, peeled
    EXPECT_EQ(rec.calls.at(0).args, (Args{"rev-parse", "HEAD"}));
    EXPECT_EQ(rec.calls.at(1).args, (Args{"rev-parse", "--short", "HEAD"}));
    EXPECT_EQ(rec.calls.at(2).args, (Args{"rev-parse", "--verify", "--quiet", "v1^{commit}"}));
    ASSERT_TRUE(short_id);
    EXPECT_LT(short_id->size(), c5.size());
    EXPECT_EQ(c5.substr(0, short_id->size()), *short_id);

    const std::vector<std::pair<std::string, std::optional<std::string>>> names = {
        {"main", c5}, {"feature~1", c2}, {"nothing", std::nullopt},
        {"main^{tree}", std::nullopt}, {"main:a.txt", std::nullopt},
    };
    for (const auto& [name, id] : names) EXPECT_EQ(resolve_commit(git, dir, name), id) << name;
    rec.calls.clear();
    for (const char* name : {"", "-x", "--all"}) EXPECT_EQ(resolve_commit(rec, dir, name), std::nullopt);
    EXPECT_TRUE(rec.calls.empty());

    std::string empty = tmp + "/empty";
    fs::create_directories(empty);
    git_in(empty, "init -q -b main");
    EXPECT_EQ(get_head_commit(git, empty), std::nullopt);
    EXPECT_EQ(get_head_commit(git, empty, false), std::nullopt);  // prints "HEAD" but fails
}

TEST_F(QueryTest, CountAndCommitBefore) {
    EXPECT_EQ(count_commits(git, dir, "main", "feature"), 1);
    EXPECT_EQ(count_commits(git, dir, "main", c1), 0);
    EXPECT_THROW(count_commits(git, dir, "nothing", "main"), GitError);

    EXPECT_EQ(commit_before(git, dir, "main", Moment{2020, 3, 1}), c1);
    EXPECT_EQ(commit_before(git, dir, "feature", Moment{2022, 1, 1}), c3);
    EXPECT_EQ(commit_before(git, dir, "main", Moment{2019, 1, 1}), std::nullopt);
    EXPECT_THROW(commit_before(git, dir, "nothing", Moment{2022, 1, 1}), GitError);

    RecordingBackend rec;
    rec.reply = [](const Args&) { return GitResult{"abc\n", "", 0}; };
    EXPECT_EQ(commit_before(rec, dir, "topic", Moment{2026, 9, 1, 14, 5, 9, 750000}), "abc");
    EXPECT_EQ(rec.calls.at(0).args, (Args{"rev-list", "-1", "--before=2026-09-01 14:05:09", "topic"}));
    EXPECT_TRUE(rec.calls.at(0).checked);
}

TEST_F(QueryTest, CountReadsAnInteger) {
    struct Case {
        const char* out;
        std::int64_t value;
    };
    for (Case c : {Case{" 7\n", 7}, Case{"", 0}, Case{"\n", 0}, Case{"1_000", 1000}, Case{"\u0661\u0662", 12},
                   Case{"-9223372036854775808", INT64_MIN}}) {
        RecordingBackend rec;
        rec.reply = [&](const Args&) { return GitResult{c.out, "", 0}; };
        EXPECT_EQ(count_commits(rec, dir, "a", "b"), c.value) << c.out;
        EXPECT_EQ(rec.calls.at(0).args, (Args{"rev-list", "--count", "a..b"}));
    }
    for (const char* bad : {"x", "1__0", "_1", "1_", "+", "1 2", "0x10"}) {
        RecordingBackend rec;
        rec.reply = [&](const Args&) { return GitResult{bad, "", 0}; };
        EXPECT_THROW(count_commits(rec, dir, "a", "b"), std::invalid_argument) << bad;
    }
    RecordingBackend rec;
    rec.reply = [](const Args&) { return GitResult{"9223372036854775808", "", 0}; };
    EXPECT_THROW(count_commits(rec, dir, "a", "b"), std::out_of_range);
}

TEST_F(QueryTest, DiffFileChanges) {
    RecordingBackend rec;
    std::vector<FileChange> changes = diff_file_changes(rec, dir, "main", "feature");
    EXPECT_EQ(rec.calls.at(0).args, (Args{"diff", "--raw", "--numstat", "-M", "-z", "--no-textconv", "main...feature"}));
    auto find = [&](const std::string& path) {
        for (const FileChange& f : changes)
            if (f.path == path) return f;
        return FileChange{};
    };
    EXPECT_EQ(changes.size(), 3u);
    EXPECT_EQ(find("a.txt"), (FileChange{"a.txt", "modified", 1, 1, std::nullopt}));
    EXPECT_EQ(find("c.txt"), (FileChange{"c.txt", "renamed", 0, 0, "b.txt"}));
    EXPECT_EQ(find("d.txt"), (FileChange{"d.txt", "added", 2, 0, std::nullopt}));
    EXPECT_TRUE(diff_file_changes(git, dir, "main", "main").empty());
    EXPECT_THROW(diff_file_changes(git, dir, "main", "nothing"), GitError);
}

TEST_F(QueryTest, LogCommitChanges) {
    auto stamps = [&](std::optional<std::string_view> ref, Moment since, std::int64_t max) {
        std::vector<std::int64_t> out;
        for (const CommitChanges& c : log_commit_changes(git, dir, since, ref, max)) out.push_back(c.timestamp);
        return out;
    };
    const std::int64_t t2 = 1591012800, t3 = 1609502400, t5 = 1598961600;  // the commits' UTC noons
    EXPECT_EQ(stamps(std::nullopt, Moment{2020, 3, 1}, 10), (std::vector<std::int64_t>{t5, t2}));
    EXPECT_EQ(stamps(std::nullopt, Moment{2020, 3, 1}, 1), (std::vector<std::int64_t>{t5}));
    EXPECT_EQ(stamps("feature", Moment{2020, 3, 1}, 10), (std::vector<std::int64_t>{t3, t2}));
    EXPECT_TRUE(stamps(std::nullopt, Moment{2022, 1, 1}, 10).empty());
    EXPECT_EQ(log_commit_changes(git, dir, Moment{2020, 8, 1}, std::nullopt, 1).at(0).files,
              (std::vector<FileChange>{{"e.txt", "added", 1, 0, std::nullopt}}));
    EXPECT_THROW(log_commit_changes(git, dir, Moment{2020, 1, 1}, "nothing", 1), GitError);

    RecordingBackend rec;
    rec.reply = [](const Args&) { return GitResult{"", "", 0}; };
    log_commit_changes(rec, dir, Moment{2026, 9, 1, 14, 5, 9, 750000}, "abc", 3);
    log_commit_changes(rec, dir, Moment{2026, 9, 1}, std::nullopt, 1);
    const Args head = {"log", "--since=2026-09-01 14:05:09", "--max-count=3", "--no-show-signature",
                       "--format=%x1e%ct", "--raw", "--numstat", "-M", "-z", "abc"};
    EXPECT_EQ(rec.calls.at(0).args, head);
    EXPECT_EQ(rec.calls.at(1).args.at(1), "--since=2026-09-01 00:00:00");
    EXPECT_EQ(rec.calls.at(1).args.back(), "-z");
}

TEST_F(QueryTest, DiffLineSpansAcrossBatches) {
    const LineSpansByPath a_only = {{"a.txt", {LineSpan{5, 5, false}}}};
    EXPECT_EQ(diff_line_spans(git, dir, "main", "feature", true), a_only);
    EXPECT_EQ(diff_line_spans(git, dir, "main", "feature", true, {}, "MRA"),
              (LineSpansByPath{{"a.txt", {LineSpan{5, 5, false}}}, {"d.txt", {LineSpan{1, 2, true}}}}));
    // Two-dot form: main itself against feature, where e.txt is new.
    EXPECT_EQ(diff_line_spans(git, dir, "feature", "main", false, {"e.txt"}, "A"),
              (LineSpansByPath{{"e.txt", {LineSpan{1, 1, true}}}}));

    // Enough long, untouched paths to need two commands; a.txt in both.
    std::vector<std::string> paths = {"a.txt"};
    for (int k = 0; k < 100; ++k) paths.push_back(std::string(200, 'p') + std::to_string(k));
    paths.push_back("a.txt");
    RecordingBackend rec;
    EXPECT_EQ(diff_line_spans(rec, dir, "main", "feature", true, paths), a_only);
    ASSERT_EQ(rec.calls.size(), 2u);
    const auto batches = path_batches(paths);
    ASSERT_EQ(batches.size(), 2u);
    for (std::size_t k = 0; k < 2; ++k) {
        Args expected = args::diff_line_spans("main", "feature", true, "MR");
        expected.push_back("--");
        expected.insert(expected.end(), batches[k].begin(), batches[k].end());
        EXPECT_EQ(rec.calls[k].args, expected);
    }
    EXPECT_TRUE(rec.calls[0].checked && rec.calls[1].checked);
}

TEST_F(QueryTest, LineSpanBatchesMergeAndFail) {
    std::vector<std::string> paths(3, std::string(7999, 'x'));
    // Scripted patches: the later batch replaces x.c, which keeps its place.
    const std::vector<std::string> patches = {"+++ x.c\n@@ -1 +1,2 @@\n-a\n+b\n+c\n+++ y.c\n@@ -0,0 +1 @@\n+d\n",
                                              "+++ x.c\n@@ -9 +9 @@\n-e\n+f\n"};
    RecordingBackend rec;
    rec.reply = [&](const Args&) { return GitResult{patches.at(rec.calls.size() - 1), "", 0}; };
    EXPECT_EQ(diff_line_spans(rec, dir, "b", "h", false, paths),
              (LineSpansByPath{{"x.c", {LineSpan{9, 9, false}}}, {"y.c", {LineSpan{1, 1, true}}}}));
    ASSERT_EQ(rec.calls.size(), 2u);
    Args first = {"-c", "core.quotepath=off", "--literal-pathspecs", "diff", "--no-color", "--no-ext-diff",
                  "--no-textconv", "--no-prefix", "-M", "-U0", "--diff-filter=MR", "b", "h",
                  "--", paths[0], paths[1]};  // 8000 + 8000 fits the budget
    EXPECT_EQ(rec.calls[0].args, first);
    EXPECT_EQ(rec.calls[1].args.size(), first.size() - 1);

    std::vector<std::string> three(3, std::string(15000, 'x'));
    RecordingBackend failing;
    failing.reply = [&](const Args&) {
        return failing.calls.size() == 2 ? GitResult{"", "fatal: bad\n", 128} : GitResult{patches[0], "", 0};
    };
    EXPECT_THROW(diff_line_spans(failing, dir, "b", "h", true, three, ""), GitError);
    EXPECT_EQ(failing.calls.size(), 2u);
    EXPECT_EQ(failing.calls[0].args.at(10), "--diff-filter=");
    EXPECT_EQ(failing.calls[0].args.at(11), "b...h");
}

// ---------------------------------------------------------------------------
// Path batching
// ---------------------------------------------------------------------------

TEST(Batches, CutsByCharacters) {
    using Batches = std::vector<std::vector<std::string>>;
    struct Case {
        std::vector<std::string> paths;
        std::size_t budget;
        Batches expected;
    };
    const std::vector<Case> cases = {
        {{}, 10, {{}}},
        {{"ab", "cd"}, 6, {{"ab", "cd"}}},
        {{"ab", "cd", "e"}, 6, {{"ab", "cd"}, {"e"}}},
        {{"toolong", "a"}, 3, {{"toolong"}, {"a"}}},
        {{"a", "toolong", "b"}, 3, {{"a"}, {"toolong"}, {"b"}}},
        {{"\u00e9.txt", "\u00e9.txt"}, 12, {{"\u00e9.txt", "\u00e9.txt"}}},  // 5 + 1 each, not bytes
        {{"\u00e9.txt", "\u00e9.txt"}, 11, {{"\u00e9.txt"}, {"\u00e9.txt"}}},
    };
    for (const Case& c : cases) EXPECT_EQ(path_batches(c.paths, c.budget), c.expected);
    const std::string p(7999, 'p');
    EXPECT_EQ(path_batches({p, p, "q"}), (Batches{{p, p}, {"q"}}));
}

// ---------------------------------------------------------------------------
// Authors
// ---------------------------------------------------------------------------

TEST(QueryAuthors, ParsesShortlogLines) {
    const std::string out =
        "    12\tJane Roe <jane@x.org>\n"
        "\n"
        "no tab here\n"
        "     3\tJust A Name\n"
        "  5\tSpaced   <  in side >\n"
        "1\tTwo <first<second>\n"
        "\u0662\tTab\tIn Name <t@x>\n"
        "1_0\tLate > and <e\n"
        "-2\tNo Close <x\n";
    const std::vector<Author> expected = {
        {"Jane Roe", "jane@x.org", 12}, {"Just A Name", "", 3},  {"Spaced", "  in side ", 5},
        {"Two", "first", 1},            {"Tab\tIn Name", "t@x", 2}, {"Late > and", "e", 10},
        {"No Close <x", "", -2},
    };
    EXPECT_EQ(parse_shortlog(out), expected);
    EXPECT_TRUE(parse_shortlog(" \n\n").empty());
    EXPECT_THROW(parse_shortlog("1x\tName <e>\n"), std::invalid_argument);
}

TEST(QueryAuthors, RunsShortlogOnATerminal) {
    RecordingBackend rec;
    rec.reply = [](const Args&) { return GitResult{"     2\tA <a@x>\n", "", 0}; };
    EXPECT_EQ(get_authors_for_period(rec, "/r", "2026-09-01"), (std::vector<Author>{{"A", "a@x", 2}}));
    ASSERT_EQ(rec.calls.size(), 1u);
    EXPECT_EQ(rec.calls[0].args, (Args{"shortlog", "--since=2026-09-01 00:00:00", "-sne"}));
    EXPECT_EQ(rec.calls[0].mode, StdinMode::Terminal);
    EXPECT_FALSE(rec.calls[0].checked);

    rec.reply = [](const Args&) { return GitResult{"     2\tA <a@x>\n", "fatal", 128}; };
    EXPECT_TRUE(get_authors_for_period(rec, "/r", "7d").empty());
    rec.calls.clear();
    EXPECT_THROW(get_authors_for_period(rec, "/r", "0d"), TimeSpecError);
    EXPECT_TRUE(rec.calls.empty());
}

TEST_F(QueryTest, AuthorsFromHeadEvenWithoutStdin) {
    // With no terminal, shortlog would read a log from stdin (here: nothing).
    int saved = ::dup(0);
    int null_fd = ::open("/dev/null", O_RDONLY);
    ::dup2(null_fd, 0);
    std::vector<Author> all = get_authors_for_period(git, dir, "2000-01-01");
    std::vector<Author> late = get_authors_for_period(git, dir, "2020-07-01");
    ::dup2(saved, 0);
    ::close(saved);
    ::close(null_fd);
    EXPECT_EQ(all, (std::vector<Author>{{"Alice", "alice@example.com", 2}, {"Bob", "bob@example.com", 1}}));
    EXPECT_EQ(late, (std::vector<Author>{{"Alice", "alice@example.com", 1}}));
}
