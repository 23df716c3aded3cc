// The Windows runner, against a fake git.exe built beside the tests
// (tests/core/win32/fake_git.cpp), and the Windows forms of roots.
#ifdef _WIN32
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "src/core/process.hpp"
#include "utils/git_utils.hpp"

using namespace git_utils;
namespace fs = std::filesystem;

namespace {

fs::path fake_dir() {
    wchar_t self[MAX_PATH];
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    return fs::path(self).parent_path() / "fake-git";
}

// A name in the temporary directory of this test process's own.
fs::path scratch(const std::string& name) {
    return fs::temp_directory_path() / ("git-utils-" + std::to_string(::GetCurrentProcessId()) + "-" + name);
}

std::string utf8(const fs::path& p) {
    const std::u8string s = p.u8string();
    return {s.begin(), s.end()};
}

// `text` with each {key} of `values` replaced by its value.
std::string fill(std::string text, std::initializer_list<std::pair<std::string, std::string>> values) {
    for (const auto& [key, value] : values)
        for (std::size_t at; (at = text.find(key)) != std::string::npos;) text.replace(at, key.size(), value);
    return text;
}

// This process's environment with PATH (and PATHEXT) replaced.
Environment env_with(const std::string& path, const char* pathext = nullptr) {
    Environment env;
    const Environment own = current_environment();
    for (std::size_t i = 0; i < own.size(); ++i)
        if (_strnicmp(own.c_str(i), "PATH=", 5) && _strnicmp(own.c_str(i), "PATHEXT=", 8)) env.add(own[i]);
    env.add("Path=" + path);
    if (pathext) env.add(std::string("PATHEXT=") + pathext);
    return env;
}

struct Ran {
    RunOutcome outcome;
    double seconds;
};

Ran run(const std::vector<std::string>& args, RunOptions options = {}, const std::string& cwd = ".") {
    if (!options.env) options.env = env_with(utf8(fake_dir()));
    const auto start = std::chrono::steady_clock::now();
    RunOutcome outcome = run_git_process(args, cwd, options);
    return {std::move(outcome), std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()};
}

// What a run came to, in one line: git's PATH and own path as it showed them
// (mode show), "not found", or the start's Windows error and the name it names.
std::string came_to(const std::vector<std::string>& args, const RunOptions& options, const std::string& cwd) {
    try {
        const RunOutcome o = run(args, options, cwd).outcome;
        if (o.status == RunStatus::NotFound) return "not found";
        if (o.status != RunStatus::Exited) return "status " + std::to_string(static_cast<int>(o.status));
        return o.out.substr(std::min(o.out.find("path="), o.out.size()));
    } catch (const OsError& e) {
        return "error " + std::to_string(e.winerror()) + " " + e.filename();
    }
}

std::string pattern(std::size_t n) {
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + i % 26);
    return s;
}

// Every argument comes back as git's C runtime parsed it.
class Win32Quoting : public ::testing::TestWithParam<std::vector<std::string>> {};

TEST_P(Win32Quoting, ArgvIsTheArgumentsExactly) {
    std::vector<std::string> args{"echo"};
    std::string expected;
    for (const std::string& a : GetParam()) args.push_back(a), expected += a + '\0';
    const Ran r = run(args);
    EXPECT_EQ(std::tuple(r.outcome.status, r.outcome.returncode, r.outcome.out), std::tuple(RunStatus::Exited, std::int64_t{0}, expected));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Win32Quoting,
    ::testing::Values(
        std::vector<std::string>{"plain", "two words", "", "tab\there", "new\nline", "", ""},
        std::vector<std::string>{"\"", "\"\"", "a\"b", "\"quoted\"", " leading and trailing "},
        std::vector<std::string>{"back\\slash", "trail\\", "trail\\\\", "\\\\server\\share\\", "with space\\"},
        std::vector<std::string>{"\\\"", "a\\\\\"b", "\\\\\\\"", "x \\\\", "\\\"\\\\\""},
        std::vector<std::string>{"caf\xc3\xa9 \xe2\x82\xac", "\xe6\x97\xa5\xe6\x9c\xac", "\xf0\x9f\x98\x80",
                                 "lone \xed\xa0\x80 surrogate"},
        std::vector<std::string>{"a&b|c<d>e^f", "%PATH%", "!x!", "--", "-c", "alias.x=!echo"}));

// A run that follows a script of writes, pauses and exits (see fake_git.cpp).
struct ScriptCase {
    const char* name;
    std::vector<std::string> steps;
    double timeout;
    RunStatus status;
    std::size_t out, err;
    std::int64_t code;
};
void PrintTo(const ScriptCase& c, std::ostream* os) { *os << c.name; }
class Win32Script : public ::testing::TestWithParam<ScriptCase> {};

TEST_P(Win32Script, AnswersOnTimeAndLeavesNothing) {
    const ScriptCase& c = GetParam();
    const fs::path pid_file = scratch(std::string(c.name) + ".pid");
    fs::remove(pid_file);
    std::vector<std::string> args{"run"};
    for (const std::string& step : c.steps) args.push_back(step[0] == 'g' ? step + ":" + utf8(pid_file) : step);
    RunOptions options;
    options.timeout = c.timeout;
    const Ran r = run(args, options);

    EXPECT_EQ(r.outcome.status, c.status);
    // Sizes and whether the bytes are the pattern: megabytes are not printed.
    const std::string &out = r.outcome.out, &err = r.outcome.err;
    if (c.status == RunStatus::Exited)
        EXPECT_EQ(std::tuple(r.outcome.returncode, out.size(), err.size(), out == pattern(out.size()),
                             err == pattern(err.size())),
                  std::tuple(c.code, c.out, c.err, true, true));
    else
        EXPECT_GE(r.seconds, c.timeout);
    EXPECT_LT(r.seconds, c.timeout + 2);
    // The grandchild that held the pipes is gone as the run returns.
    if (DWORD pid = 0; std::ifstream(pid_file) >> pid) {
        HANDLE h = ::OpenProcess(SYNCHRONIZE, FALSE, pid);
        EXPECT_TRUE(!h || ::WaitForSingleObject(h, 0) == WAIT_OBJECT_0) << "grandchild " << pid << " still runs";
        if (h) ::CloseHandle(h);
    }
    fs::remove(pid_file);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Win32Script,
    ::testing::Values(
        ScriptCase{"bytes", {"o1", "e1"}, 10, RunStatus::Exited, 1, 1, 0},
        ScriptCase{"chunk", {"o65535", "e65536", "o1", "x3"}, 10, RunStatus::Exited, 65536, 65536, 3},
        ScriptCase{"stderr_full_first", {"e1048577", "o3145729"}, 20, RunStatus::Exited, 3145729, 1048577, 0},
        ScriptCase{"alternating", {"o1", "s150", "e1", "s150", "o65535", "e65535"}, 10, RunStatus::Exited, 65536,
                   65536, 0},
        ScriptCase{"ntstatus", {"o5", "x3221225477"}, 10, RunStatus::Exited, 5, 0, 3221225477},
        ScriptCase{"pause_after_chunk", {"o65536", "s8000"}, 0.5, RunStatus::TimedOut, 0, 0, 0},
        ScriptCase{"grandchild_on_pipes", {"o10", "g8000"}, 0.5, RunStatus::TimedOut, 0, 0, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Win32Runner, SixteenThreadsAtOnceKeepTheirOwnPipes) {
    // Half the runs sleep 3 s. Were a pipe end of one run handed to another
    // run's git, that run would wait for the other git to end.
    constexpr int kThreads = 16;
    std::vector<Ran> runs(kThreads);
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] {
            ++ready;
            while (ready < kThreads) std::this_thread::yield();
            try {
                runs[i] = i % 2 ? run({"echo", "thread " + std::to_string(i)})
                                : run({"run", "o" + std::to_string(i), "s3000"});
            } catch (const OsError& e) {
                failures[i] = std::string(e.what()) + " (Windows error " + std::to_string(e.winerror()) + ")";
            }
        });
    for (auto& t : threads) t.join();
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(std::tuple(failures[i], runs[i].outcome.status, runs[i].outcome.out, i % 2 && runs[i].seconds >= 2.5),
                  std::tuple("", RunStatus::Exited, i % 2 ? "thread " + std::to_string(i) + '\0' : pattern(i), false))
            << "run " << i << " took " << runs[i].seconds << " s";
    }
}

// git is found on PATH with PATHEXT, and only there; a git.exe that cannot
// run is passed over, and is the error when no other runs.
struct FindCase {
    const char* name;
    std::string path;  // {fake}: the fake's directory, {cmd}: one with git.cmd only, {here}: the run's directory,
                       // {bad}: one whose git.exe is no program
    const char* pathext;
    const char* outcome;  // "found" in {fake}, or what came_to gives (193: ERROR_BAD_EXE_FORMAT)
};
void PrintTo(const FindCase& c, std::ostream* os) { *os << c.name; }
class Win32FindGit : public ::testing::TestWithParam<FindCase> {};

TEST_P(Win32FindGit, OnlyAbsoluteDirectoriesOfPath) {
    const fs::path here = scratch("find") / "repo", cmd = here.parent_path() / "cmd", bad = here.parent_path() / "bad";
    for (const fs::path& dir : {here, cmd, bad}) fs::create_directories(dir);
    fs::copy_file(fake_dir() / "git.exe", here / "git.exe", fs::copy_options::overwrite_existing);
    std::ofstream(cmd / "git.cmd") << "@echo wrong git\r\n";
    std::ofstream(bad / "git.exe") << "#!/bin/sh\n";
    const std::string path = fill(GetParam().path, {{"{fake}", utf8(fake_dir())}, {"{cmd}", utf8(cmd)},
                                                    {"{here}", utf8(here)}, {"{bad}", utf8(bad)}});
    RunOptions options;
    options.env = env_with(path, GetParam().pathext);
    const std::string outcome = GetParam().outcome;
    EXPECT_EQ(came_to({"show"}, options, utf8(here)),
              outcome == "found" ? "path=" + path + "\nself=" + utf8(fake_dir() / "git.exe") + "\n" : outcome);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Win32FindGit,
    ::testing::Values(FindCase{"plain", "{fake}", nullptr, "found"},
                      FindCase{"relative_entries_skipped", ".;;repo;{fake}", nullptr, "found"},
                      FindCase{"only_the_current_directory", ".;", nullptr, "not found"},
                      FindCase{"batch_file_skipped", "{cmd};{fake}", ".CMD;.BAT;.EXE", "found"},
                      FindCase{"batch_file_only", "{cmd}", ".CMD;.EXE", "not found"},
                      FindCase{"quoted_with_slashes", "\"{fake}/\";C:\\caf\xc3\xa9 \xe2\x82\xac", nullptr, "found"},
                      FindCase{"no_exe_in_pathext", "{fake}", ".COM;.CMD", "not found"},
                      FindCase{"unrunnable_git_passed_over", "{bad};{fake}", nullptr, "found"},
                      FindCase{"only_an_unrunnable_git", "{bad}", nullptr, "error 193 git"}),
    [](const auto& info) { return std::string(info.param.name); });

// The host's start options and the standard input modes as git sees them.
struct StartCase {
    StartOptions start;
    StdinMode stdin_mode;
    const char* expected;
};
class Win32Start : public ::testing::TestWithParam<StartCase> {};

TEST_P(Win32Start, ReachGit) {
    RunOptions options;
    options.start = GetParam().start;
    options.stdin_mode = GetParam().stdin_mode;
    const Ran r = run({"show"}, options);
    EXPECT_EQ(r.outcome.out.substr(0, r.outcome.out.find('\n')), GetParam().expected);
    if (GetParam().stdin_mode == StdinMode::Terminal) {
        // What Git for Windows takes for a terminal (MSYS2's pty pipes).
        const std::string name = r.outcome.out.substr(r.outcome.out.find("name=") + 5);
        EXPECT_TRUE(name.find("msys-") != std::string::npos && name.find("-pty") != std::string::npos) << name;
    }
}

// STARTF_USESHOWWINDOW 1, SW_HIDE 0; CREATE_NO_WINDOW 0x08000000 gives git a
// console without a window, DETACHED_PROCESS 0x8 none at all; FILE_TYPE_CHAR
// 2 (NUL), FILE_TYPE_PIPE 3. CREATE_BREAKAWAY_FROM_JOB 0x01000000 and the debug
// flags 0x3 are dropped: git still answers, inside the run's job.
INSTANTIATE_TEST_SUITE_P(
    Cases, Win32Start,
    ::testing::Values(StartCase{{0, 0, 0x8}, StdinMode::Null, "flags=256 show=0 console=0 stdin=2 read=eof"},
                      StartCase{{1, 0, 0x08000000}, StdinMode::Null, "flags=257 show=0 console=1 stdin=2 read=eof"},
                      StartCase{{1, 7, 0x8}, StdinMode::Terminal, "flags=257 show=7 console=0 stdin=3 read=eof"},
                      StartCase{{0, 0, 0x01000000 | 0x3 | 0x8}, StdinMode::Null, "flags=256 show=0 console=0 stdin=2 read=eof"}));

TEST(Win32Environment, CopiedAsUtf8) {
    ::SetEnvironmentVariableW(L"GIT_UTILS_TEST", L"caf\u00e9 \u20ac \U0001F600");
    const Environment env = current_environment();
    ::SetEnvironmentVariableW(L"GIT_UTILS_TEST", nullptr);
    std::size_t i = 0;
    while (i < env.size() && env[i] != "GIT_UTILS_TEST=caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80") ++i;
    EXPECT_LT(i, env.size());
}

// Roots with drive letters, either separator, device paths and shares.
struct RootCase {
    std::string start;  // {tmp}: the temporary directory, {tmp_nodrive}: it without "C:"
    std::optional<std::string> expected;
};
class Win32Roots : public ::testing::TestWithParam<RootCase> {};

TEST_P(Win32Roots, WalkTheWrittenPath) {
    const fs::path tmp = scratch("roots");
    fs::create_directories(tmp / "repo" / ".git");
    fs::create_directories(tmp / "repo" / "sub" / "deeper");
    const std::string t = utf8(tmp.lexically_normal());
    const auto tmp_in = [&](const std::string& s) { return fill(s, {{"{tmp_nodrive}", t.substr(2)}, {"{tmp}", t}}); };
    const fs::path saved = fs::current_path();
    fs::current_path(tmp / "repo");
    const auto root = find_git_root(tmp_in(GetParam().start));
    fs::current_path(saved);
    EXPECT_EQ(root, GetParam().expected ? std::optional(tmp_in(*GetParam().expected)) : std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Win32Roots,
    ::testing::Values(RootCase{"{tmp}\\repo\\sub\\deeper", "{tmp}\\repo"},
                      RootCase{"{tmp}/repo//sub/./deeper/", "{tmp}\\repo"},
                      RootCase{"{tmp}\\repo\\sub\\..", "{tmp}\\repo\\sub\\.."},
                      RootCase{"sub\\deeper", "{tmp}\\repo"},
                      RootCase{"C:sub", "{tmp}\\repo"},
                      RootCase{"{tmp_nodrive}\\repo\\sub", "C:{tmp_nodrive}\\repo"},
                      RootCase{"\\\\?\\{tmp}\\repo\\sub", "\\\\?\\{tmp}\\repo"},
                      RootCase{"{tmp}", std::nullopt},
                      RootCase{"\\\\no-such-server\\share\\dir", std::nullopt}));

}  // namespace
#endif  // _WIN32
