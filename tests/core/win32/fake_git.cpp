// A stand-in for git.exe in the Windows runner's tests. Its first argument
// says what to do:
//   echo ARGS...   writes each argument as UTF-8 followed by a NUL (argv as the
//                  C runtime parsed the command line)
//   run STEPS...   follows the steps in order: oN / eN write N bytes to stdout /
//                  stderr (byte i of a stream is 'a' + i % 26), sN sleeps N ms,
//                  xN exits with code N, gN:FILE starts a grandchild that
//                  inherits the outputs and sleeps N ms, and writes its process
//                  id to FILE
//   show           writes what it was started with: STARTUPINFO's dwFlags and
//                  wShowWindow, whether it has a console, the type and name of its
//                  standard input and what a read of it gives, its PATH entry
//                  and its own path
#include <windows.h>
#include <winternl.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>

#include "src/core/win32/system.hpp"

namespace {

std::string utf8(const std::wstring& w) { return git_utils::win32::narrow(w); }

void put(DWORD which, const std::string& data) {
    DWORD done = 0;
    for (std::size_t at = 0; at < data.size(); at += done)
        if (!WriteFile(GetStdHandle(which), data.data() + at, static_cast<DWORD>(data.size() - at), &done, nullptr))
            ExitProcess(99);
}

// Bytes written so far to stdout and stderr.
unsigned long long written[2];

void write_pattern(DWORD which, std::size_t n) {
    unsigned long long& at = written[which == STD_ERROR_HANDLE];
    std::string block(n, '\0');
    for (std::size_t i = 0; i < n; ++i) block[i] = static_cast<char>('a' + (at + i) % 26);
    put(which, block);
    at += n;
}

void grandchild(const wchar_t* step) {
    wchar_t* file = nullptr;
    const unsigned long ms = std::wcstoul(step, &file, 10);
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring line = L"git run s" + std::to_wstring(ms);
    STARTUPINFOW si{};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi{};
    if (!CreateProcessW(self, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) ExitProcess(98);
    if (FILE* f = _wfopen(file + 1, L"w")) {
        std::fprintf(f, "%lu", pi.dwProcessId);
        std::fclose(f);
    }
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
}

void show() {
    STARTUPINFOW si{};
    GetStartupInfoW(&si);
    HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
    std::string name;
    // The name Git for Windows looks at to tell an MSYS2 terminal.
    alignas(8) unsigned char buffer[1024];
    ULONG size = 0;
    if (NT_SUCCESS(NtQueryObject(in, static_cast<OBJECT_INFORMATION_CLASS>(1), buffer, sizeof buffer - 2, &size))) {
        const auto* info = reinterpret_cast<const UNICODE_STRING*>(buffer);
        name = utf8(std::wstring(info->Buffer, info->Length / sizeof(wchar_t)));
    }
    char byte;
    DWORD got = 0;
    const bool read = ReadFile(in, &byte, 1, &got, nullptr);
    wchar_t path[4096] = L"", self[MAX_PATH] = L"";
    GetEnvironmentVariableW(L"PATH", path, 4096);
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    char text[256];
    std::snprintf(text, sizeof text, "flags=%lu show=%u console=%d stdin=%lu read=%s\n", si.dwFlags, si.wShowWindow,
                  GetConsoleCP() != 0, GetFileType(in),
                  read ? (got ? "data" : "eof") : GetLastError() == ERROR_BROKEN_PIPE ? "eof" : "error");
    put(STD_OUTPUT_HANDLE, text + ("name=" + name + "\npath=" + utf8(path) + "\nself=" + utf8(self) + "\n"));
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const std::wstring mode = argc > 1 ? argv[1] : L"";
    if (mode == L"echo") {
        for (int i = 2; i < argc; ++i) put(STD_OUTPUT_HANDLE, utf8(argv[i]) + '\0');
    } else if (mode == L"show") {
        show();
    } else if (mode == L"run") {
        for (int i = 2; i < argc; ++i) {
            const wchar_t step = argv[i][0];
            const unsigned long long n = std::wcstoull(argv[i] + 1, nullptr, 10);
            if (step == L'o') write_pattern(STD_OUTPUT_HANDLE, n);
            if (step == L'e') write_pattern(STD_ERROR_HANDLE, n);
            if (step == L's') Sleep(static_cast<DWORD>(n));
            if (step == L'x') ExitProcess(static_cast<UINT>(n));
            if (step == L'g') grandchild(argv[i] + 1);
        }
    } else {
        put(STD_ERROR_HANDLE, "fake git: unknown mode\n");
        return 2;
    }
    return 0;
}
