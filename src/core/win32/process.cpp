// Starting git on Windows and watching it to the end: CreateProcessW with a
// command line quoted for the C runtime's parser (so git's argv is exactly the
// arguments), git found on PATH by the library itself, only git's three
// standard handles inherited, both outputs read with overlapped I/O under one
// deadline, and a job object holding everything git starts, so that a timeout
// ends the whole tree.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "src/core/process.hpp"
#include "src/core/runner.hpp"
#include "src/core/win32/system.hpp"

namespace git_utils {

namespace process::win32_flags {
static_assert(kUseStdHandles == STARTF_USESTDHANDLES && kDebugProcess == DEBUG_PROCESS &&
              kDebugOnlyThisProcess == DEBUG_ONLY_THIS_PROCESS && kCreateSuspended == CREATE_SUSPENDED &&
              kCreateUnicodeEnvironment == CREATE_UNICODE_ENVIRONMENT &&
              kExtendedStartupinfoPresent == EXTENDED_STARTUPINFO_PRESENT &&
              kCreateBreakawayFromJob == CREATE_BREAKAWAY_FROM_JOB);
}  // namespace process::win32_flags

Environment current_environment() {
    wchar_t* block = ::GetEnvironmentStringsW();
    Environment env;
    if (!block) return env;
    std::size_t entries = 0, units = 0;
    for (const wchar_t* p = block; *p; p += std::wcslen(p) + 1) ++entries, units += std::wcslen(p) + 1;
    env.reserve(entries, units);
    for (const wchar_t* p = block; *p; p += std::wcslen(p) + 1) env.add(win32::narrow(p));
    ::FreeEnvironmentStringsW(block);
    return env;
}

namespace process {
namespace {

// Owns one handle.
class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE h) : h_(h) {}
    Handle(Handle&& other) noexcept : h_(std::exchange(other.h_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept {
        reset(std::exchange(other.h_, nullptr));
        return *this;
    }
    ~Handle() { reset(); }
    HANDLE get() const { return h_; }
    HANDLE release() { return std::exchange(h_, nullptr); }
    bool valid() const { return h_ && h_ != INVALID_HANDLE_VALUE; }
    void reset(HANDLE h = nullptr) {
        if (valid()) ::CloseHandle(h_);
        h_ = h;
    }

private:
    HANDLE h_ = nullptr;
};

[[noreturn]] void fail(const std::string& filename, DWORD error = ::GetLastError()) {
    throw OsError(win32::errno_of(error), filename, error);
}

// A name for a new pipe: "\\.\pipe\" + `prefix` + this process's id and a
// counter + `suffix`. The pipe is made with FILE_FLAG_FIRST_PIPE_INSTANCE, so
// a name that someone else took first fails instead of connecting to them.
std::wstring pipe_name(const wchar_t* prefix, const wchar_t* suffix) {
    static std::atomic<unsigned long long> counter{0};
    wchar_t name[160];
    std::swprintf(name, 160, L"\\\\.\\pipe\\%ls-%lu-%llu%ls", prefix, ::GetCurrentProcessId(), ++counter, suffix);
    return name;
}

// A pipe for one of git's outputs: our end a named pipe's server, read with
// overlapped I/O (anonymous pipes cannot be), git's end an inheritable client.
void make_output_pipe(Handle& ours, Handle& theirs) {
    const std::wstring name = pipe_name(L"git_utils", L"");
    ours.reset(::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
                                  PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, 0,
                                  1 << 20, 0, nullptr));
    if (!ours.valid()) fail("git");
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    theirs.reset(::CreateFileW(name.c_str(), GENERIC_WRITE, 0, &inherit, OPEN_EXISTING, 0, nullptr));
    if (!theirs.valid()) fail("git");
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return (x >= 'a' && x <= 'z' ? x - 32 : x) == (y >= 'a' && y <= 'z' ? y - 32 : y);
           });
}

// The value of `name` in `env`; names are matched without regard to case.
std::optional<std::string_view> env_value(const Environment& env, std::string_view name) {
    for (std::size_t i = 0; i < env.size(); ++i) {
        const std::string_view entry = env[i];
        if (entry.size() > name.size() && entry[name.size()] == '=' &&
            equal_ignoring_case(entry.substr(0, name.size()), name))
            return entry.substr(name.size() + 1);
    }
    return std::nullopt;
}

bool is_separator(wchar_t c) { return c == L'\\' || c == L'/'; }

// The programs that may be git, in the order they are tried: "git" with each
// extension of PATHEXT that names a file, in each directory of the PATH of
// `env` in turn.
//
// Only absolute directories count: a relative one (".", an empty entry)
// would name the repository, and a git.exe there must never run. Only the
// extensions of programs that CreateProcessW starts itself are taken (.exe,
// .com): a batch file runs through cmd.exe, which splits and expands a
// command line by rules of its own, so its arguments could not be passed
// exactly.
std::vector<std::wstring> git_candidates(const Environment& env) {
    const std::string_view path = env_value(env, "PATH").value_or("");
    const std::string_view exts = env_value(env, "PATHEXT").value_or(".COM;.EXE;.BAT;.CMD");
    const auto each = [](std::string_view list, auto&& visit) {
        for (std::size_t start = 0; start <= list.size();) {
            std::size_t end = list.find(';', start);
            if (end == std::string_view::npos) end = list.size();
            if (visit(list.substr(start, end - start))) return true;
            start = end + 1;
        }
        return false;
    };
    std::vector<std::wstring> found;
    each(path, [&](std::string_view dir_text) {
        if (dir_text.size() >= 2 && dir_text.front() == '"' && dir_text.back() == '"')
            dir_text = dir_text.substr(1, dir_text.size() - 2);
        const std::wstring dir = win32::widen(dir_text);
        const bool absolute = (dir.size() >= 3 && dir[1] == L':' && is_separator(dir[2])) ||
                              (dir.size() >= 2 && is_separator(dir[0]) && is_separator(dir[1]));
        if (!absolute) return false;
        return each(exts, [&](std::string_view ext) {
            if (!equal_ignoring_case(ext, ".exe") && !equal_ignoring_case(ext, ".com")) return false;
            std::wstring candidate = dir;
            if (!is_separator(candidate.back())) candidate += L'\\';
            candidate += L"git" + win32::widen(ext);
            const DWORD attributes = ::GetFileAttributesW(candidate.c_str());
            if (attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY))
                found.push_back(std::move(candidate));
            return false;
        });
    });
    return found;
}

// One argument as the C runtime's parser reads it back: as it is when it holds
// no blank, tab, line break or quote; otherwise in quotes, each quote escaped
// with a backslash and the backslashes before a quote (and before the closing
// one) doubled. Backslashes elsewhere stand for themselves.
void append_argument(std::wstring& line, std::wstring_view arg) {
    if (!arg.empty() && arg.find_first_of(L" \t\n\v\"") == std::wstring_view::npos) {
        line += arg;
        return;
    }
    line += L'"';
    std::size_t backslashes = 0;
    for (const wchar_t c : arg) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        line.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
        backslashes = 0;
        line += c;
    }
    line.append(2 * backslashes, L'\\');
    line += L'"';
}

std::wstring command_line(const std::vector<std::string>& args) {
    std::wstring line = L"git";
    for (const std::string& arg : args) {
        line += L' ';
        append_argument(line, win32::widen(arg));
    }
    return line;
}

// The environment as CreateProcessW takes it: UTF-16 "NAME=value" entries, in
// the order of their names compared without regard to case (as the system
// keeps its own), each ended by a NUL, and one more NUL at the end.
std::wstring environment_block(const Environment& env) {
    std::vector<std::wstring> entries;
    entries.reserve(env.size());
    for (std::size_t i = 0; i < env.size(); ++i) entries.push_back(win32::widen(env[i]));
    const auto name_length = [](const std::wstring& e) {
        const std::size_t eq = e.find(L'=', 1);  // "=C:=C:\dir" names the drive's directory
        return static_cast<int>(eq == std::wstring::npos ? e.size() : eq);
    };
    std::stable_sort(entries.begin(), entries.end(), [&](const std::wstring& a, const std::wstring& b) {
        return ::CompareStringOrdinal(a.data(), name_length(a), b.data(), name_length(b), TRUE) == CSTR_LESS_THAN;
    });
    std::wstring block;
    for (const std::wstring& e : entries) {
        block += e;
        block += L'\0';
    }
    if (entries.empty()) block += L'\0';
    block += L'\0';
    return block;
}

// git's standard input, inheritable: the caller's own (NUL when it has none,
// as for a program without a console), NUL, or a silent terminal (where none
// can be made, the caller's own, as the plain runner gives it).
Handle standard_input(StdinMode mode, std::optional<SilentTerminal>& terminal) {
    HANDLE source = nullptr;
    if (mode == StdinMode::Terminal && !(source = terminal.emplace().handle())) mode = StdinMode::Inherit;
    if (mode == StdinMode::Inherit) source = ::GetStdHandle(STD_INPUT_HANDLE);
    if (source && source != INVALID_HANDLE_VALUE) {
        HANDLE copy = nullptr;
        if (::DuplicateHandle(::GetCurrentProcess(), source, ::GetCurrentProcess(), &copy, 0, TRUE,
                              DUPLICATE_SAME_ACCESS))
            return Handle(copy);
        if (mode == StdinMode::Terminal) fail("git");
    }
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    Handle nul(::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0, nullptr));
    if (!nul.valid()) fail("NUL");
    return nul;
}

// The attribute list that limits what git inherits to `handles`: a thread
// that starts another process at the same moment cannot hand our pipe ends to
// it, nor we its ends to git.
class HandleList {
public:
    explicit HandleList(HANDLE (&handles)[3]) {
        SIZE_T size = 0;
        ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        storage_ = std::make_unique<std::max_align_t[]>(size / sizeof(std::max_align_t) + 1);
        list_ = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage_.get());
        if (!::InitializeProcThreadAttributeList(list_, 1, 0, &size)) fail("git");
        if (!::UpdateProcThreadAttribute(list_, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles, sizeof handles, nullptr,
                                         nullptr)) {
            const DWORD error = ::GetLastError();
            ::DeleteProcThreadAttributeList(list_);
            fail("git", error);
        }
    }
    HandleList(const HandleList&) = delete;
    HandleList& operator=(const HandleList&) = delete;
    ~HandleList() { ::DeleteProcThreadAttributeList(list_); }
    LPPROC_THREAD_ATTRIBUTE_LIST get() const { return list_; }

private:
    std::unique_ptr<std::max_align_t[]> storage_;
    LPPROC_THREAD_ATTRIBUTE_LIST list_ = nullptr;
};

// One output stream being read, one overlapped read at a time.
class Stream {
public:
    Stream(Handle pipe, OutputBuffer& buffer) : pipe_(std::move(pipe)), buffer_(buffer) {
        event_.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!event_.valid()) fail("git");
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() { cancel(); }

    bool open() const { return open_; }
    bool pending() const { return pending_; }
    HANDLE event() const { return event_.get(); }

    // Starts a read into the buffer's free room, unless one is under way. Its
    // end shows on event(), also when the data was there at once.
    void start() {
        if (!open_ || pending_) return;
        const std::span<char> room = buffer_.room();
        overlapped_ = {};
        overlapped_.hEvent = event_.get();
        const DWORD size = static_cast<DWORD>(std::min<std::size_t>(room.size(), 1u << 30));
        if (::ReadFile(pipe_.get(), room.data(), size, nullptr, &overlapped_) || ::GetLastError() == ERROR_IO_PENDING)
            pending_ = true;
        else
            open_ = false;  // every writer gone (ERROR_BROKEN_PIPE), or a read error, which ends it the same way
    }

    // Takes the result of the read whose event is set.
    void finish() {
        DWORD n = 0;
        pending_ = false;
        if (::GetOverlappedResult(pipe_.get(), &overlapped_, &n, FALSE))
            buffer_.commit(n);
        else
            open_ = false;
    }

    // Stops a read under way and waits until the system no longer writes to
    // the buffer.
    void cancel() noexcept {
        if (!pending_) return;
        DWORD n = 0;
        ::CancelIoEx(pipe_.get(), &overlapped_);
        ::GetOverlappedResult(pipe_.get(), &overlapped_, &n, TRUE);
        pending_ = false;
    }

private:
    Handle pipe_;
    OutputBuffer& buffer_;
    Handle event_;
    OVERLAPPED overlapped_{};
    bool open_ = true, pending_ = false;
};

// The started git and its job. Everything git starts is in the job (git is
// started suspended and put in the job before it runs), so ending the job
// ends the whole tree, whoever holds the pipes.
class Child {
public:
    Child(Handle process, Handle job) : process_(std::move(process)), job_(std::move(job)) {}
    HANDLE process() const { return process_.get(); }

    // Ends git and everything in its job, and waits until they are gone (a
    // termination is only started by the call that asks for it, and the
    // system counts a process out of the job before it has gone, so the
    // members are opened first and waited for).
    void end_everything() noexcept {
        if (!job_.valid()) {
            ::TerminateProcess(process_.get(), 1);
            ::WaitForSingleObject(process_.get(), INFINITE);
            return;
        }
        std::vector<Handle> members;
        try {
            members = open_members();
        } catch (...) {
            // Out of memory: the job is ended all the same.
        }
        ::TerminateJobObject(job_.get(), 1);
        ::WaitForSingleObject(process_.get(), INFINITE);
        // Two seconds at most for a process that the system is slow to take down.
        const auto until = Clock::now() + std::chrono::seconds(2);
        for (const Handle& m : members) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
            ::WaitForSingleObject(m.get(), static_cast<DWORD>(std::max<long long>(left, 0)));
        }
    }

private:
    // Every process in the job now, opened to wait for. (Should one have
    // ended and its id gone to another process since, the wait for that one
    // is only cut short by the time limit; nothing is signalled by id.)
    std::vector<Handle> open_members() const {
        std::vector<ULONG_PTR> buffer(66);
        for (;;) {
            auto* list = reinterpret_cast<JOBOBJECT_BASIC_PROCESS_ID_LIST*>(buffer.data());
            const DWORD room = static_cast<DWORD>(buffer.size() * sizeof(ULONG_PTR));
            if (::QueryInformationJobObject(job_.get(), JobObjectBasicProcessIdList, list, room, nullptr) ||
                ::GetLastError() != ERROR_MORE_DATA) {
                std::vector<Handle> members;
                for (DWORD i = 0; i < list->NumberOfProcessIdsInList; ++i) {
                    Handle h(::OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(list->ProcessIdList[i])));
                    if (h.valid()) members.push_back(std::move(h));
                }
                return members;
            }
            buffer.resize(buffer.size() * 2);
        }
    }

    Handle process_;
    Handle job_;
};

// Starts the first of `programs` that runs, suspended, as subprocess tries
// PATH on POSIX: one that is gone meanwhile is passed over; one that cannot
// run (not a program for this machine, ERROR_BAD_EXE_FORMAT; access denied)
// is remembered, and the first of those is the error when no candidate
// starts. A directory that cannot be entered is the error at once. False
// when no candidate exists.
bool start_first(const std::vector<std::wstring>& programs, const Request& request, STARTUPINFOEXW& info,
                 DWORD creation_flags, PROCESS_INFORMATION& started) {
    std::wstring line = command_line(request.args);
    std::wstring env = environment_block(request.env);
    const std::wstring cwd = win32::widen(request.cwd);
    DWORD first_failure = ERROR_SUCCESS;
    for (const std::wstring& program : programs) {
        if (::CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, creation_flags, env.data(),
                             cwd.c_str(), &info.StartupInfo, &started))
            return true;
        const DWORD error = ::GetLastError();
        const DWORD directory = ::GetFileAttributesW(cwd.c_str());
        if (directory == INVALID_FILE_ATTRIBUTES || !(directory & FILE_ATTRIBUTE_DIRECTORY)) fail(request.cwd, error);
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND && first_failure == ERROR_SUCCESS)
            first_failure = error;
    }
    if (first_failure != ERROR_SUCCESS) fail("git", first_failure);
    return false;
}

// The wait until git has exited and both streams are at end of file, or the
// deadline passed.
RunOutcome watch(const Request& request, Child& child, Stream (&streams)[2]) {
    const bool limited = request.deadline != Clock::time_point::max();
    bool exited = false;
    for (;;) {
        for (Stream& s : streams) s.start();
        if (exited && !streams[0].open() && !streams[1].open()) break;

        DWORD wait_ms = INFINITE;
        if (limited) {
            const auto left = request.deadline - Clock::now();
            if (left <= Clock::duration::zero()) {
                for (Stream& s : streams) s.cancel();
                child.end_everything();
                return ended(RunStatus::TimedOut);
            }
            const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
            wait_ms = static_cast<DWORD>(std::min<long long>(ms, INFINITE - 1));
        }
        HANDLE waits[3];
        int what[3];
        DWORD n = 0;
        for (int i = 0; i < 2; ++i)
            if (streams[i].pending()) waits[n] = streams[i].event(), what[n++] = i;
        if (!exited) waits[n] = child.process(), what[n++] = 2;
        const DWORD woke = ::WaitForMultipleObjects(n, waits, FALSE, wait_ms);
        if (woke == WAIT_TIMEOUT) continue;
        if (woke >= WAIT_OBJECT_0 + n) throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), "WaitForMultipleObjects");
        // Everything that is ready, not only the first: one read per
        // stream and wake-up, and the deadline looked at again before
        // the next.
        for (DWORD k = 0; k < n; ++k) {
            if (k != woke - WAIT_OBJECT_0 && ::WaitForSingleObject(waits[k], 0) != WAIT_OBJECT_0) continue;
            if (what[k] == 2)
                exited = true;
            else
                streams[what[k]].finish();
        }
    }
    DWORD code = 0;
    ::GetExitCodeProcess(child.process(), &code);
    return ended(RunStatus::Exited, static_cast<std::int64_t>(code));
}

}  // namespace

RunOutcome run(const Request& request, OutputBuffer& out, OutputBuffer& err) {
    const std::vector<std::wstring> programs = git_candidates(request.env);
    if (programs.empty()) return ended(RunStatus::NotFound);

    Handle out_read, out_write, err_read, err_write;
    make_output_pipe(out_read, out_write);
    make_output_pipe(err_read, err_write);
    Stream streams[2] = {{std::move(out_read), out}, {std::move(err_read), err}};
    std::optional<SilentTerminal> terminal;
    Handle input = standard_input(request.stdin_mode, terminal);
    HANDLE inherited[3] = {input.get(), out_write.get(), err_write.get()};
    HandleList handle_list(inherited);

    const NativeStart flags = windows_start(request.start);
    STARTUPINFOEXW info{};
    info.StartupInfo.cb = sizeof info;
    info.StartupInfo.dwFlags = flags.startup_flags;
    info.StartupInfo.wShowWindow = flags.show_window;
    info.StartupInfo.hStdInput = inherited[0];
    info.StartupInfo.hStdOutput = inherited[1];
    info.StartupInfo.hStdError = inherited[2];
    info.lpAttributeList = handle_list.get();

    Handle job(::CreateJobObjectW(nullptr, nullptr));
    PROCESS_INFORMATION started{};
    if (!start_first(programs, request, info, flags.creation_flags, started)) return ended(RunStatus::NotFound);
    Handle thread(started.hThread);
    // Where the job cannot take git (a host in a job that forbids nesting,
    // before Windows 8), a timeout ends git alone.
    if (job.valid() && !::AssignProcessToJobObject(job.get(), started.hProcess)) job.reset();
    Child child(Handle(started.hProcess), std::move(job));
    if (::ResumeThread(thread.get()) == static_cast<DWORD>(-1)) {
        const DWORD error = ::GetLastError();
        child.end_everything();
        fail("git", error);
    }
    thread.reset();
    out_write.reset();
    err_write.reset();
    input.reset();  // the terminal itself stays until the run ends: git looks at its name

    try {
        return watch(request, child, streams);
    } catch (...) {
        for (Stream& s : streams) s.cancel();
        out.clear();
        err.clear();
        child.end_everything();
        throw;
    }
}

}  // namespace process

// Windows has no terminal device that a process without a console can hand
// on, and Git for Windows answers isatty(0) itself: true for a console input
// handle (GetConsoleMode succeeds) and for a pipe whose name marks it as an
// MSYS2 or Cygwin pseudo-terminal ("msys-" and "-pty" in it, the terminals of
// Git Bash and MinTTY); false for NUL, files and other pipes. So the silent
// terminal is the reading end of such a named pipe, in message mode and
// holding only empty messages: git sees a terminal, and a read gives end of
// file. (Closing the writing end instead would also give end of file, but the
// pipe's name goes with it, and git looks at the name when it starts.) Where
// the pipe cannot be made, handle() is null and fd() -1.
SilentTerminal::SilentTerminal() {
    const std::wstring name = process::pipe_name(L"msys-git_utils", L"-pty0");
    process::Handle writer(::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_OUTBOUND | FILE_FLAG_FIRST_PIPE_INSTANCE,
                                              PIPE_TYPE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, 4096, 0,
                                              0, nullptr));
    if (!writer.valid()) return;
    process::Handle reader(::CreateFileW(name.c_str(), GENERIC_READ | FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    DWORD mode = PIPE_READMODE_MESSAGE;
    if (!reader.valid() || !::SetNamedPipeHandleState(reader.get(), &mode, nullptr, nullptr)) return;
    // A read of an empty message gives no bytes: end of file, each time one
    // is read.
    for (int i = 0; i < 16; ++i) {
        DWORD written = 0;
        if (!::WriteFile(writer.get(), "", 0, &written, nullptr)) return;
    }
    HANDLE copy = nullptr;
    if (!::DuplicateHandle(::GetCurrentProcess(), reader.get(), ::GetCurrentProcess(), &copy, 0, FALSE,
                           DUPLICATE_SAME_ACCESS))
        return;
    fd_ = ::_open_osfhandle(reinterpret_cast<std::intptr_t>(copy), _O_RDONLY);
    if (fd_ < 0) ::CloseHandle(copy);
    handle_ = reader.release();
    writer_ = writer.release();
}

SilentTerminal::~SilentTerminal() {
    if (fd_ >= 0) ::_close(fd_);
    if (handle_) ::CloseHandle(handle_);
    if (writer_) ::CloseHandle(writer_);
}

}  // namespace git_utils
