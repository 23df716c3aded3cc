// Paths and the file system on Windows, for the repository root discovery
// (roots.cpp): a path starts with a drive ("C:"), a share ("\\server\share")
// or a device path ("\\?\C:"), either separator may be written, and the
// answer is written with backslashes.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <algorithm>
#include <vector>

#include "src/core/platform.hpp"
#include "src/core/win32/system.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

namespace platform {

char separator() { return '\\'; }
bool is_separator(char c) { return c == '/' || c == '\\'; }

}  // namespace platform

namespace {

using platform::is_separator;

// A path's drive and whether a separator follows it: "C:" of "C:\x" (rooted)
// and of "C:x" (not: relative to that drive's current directory);
// "\\server\share", "\\?\C:" and "\\?\UNC\server\share", always rooted; none
// for "\x" (rooted: the current drive's root) and "x".
struct Anchored {
    std::string drive;  // separators written as backslashes
    bool rooted = false;
    std::string_view rest;
};

Anchored split_anchor(std::string_view path) {
    Anchored a;
    if (path.size() >= 2 && is_separator(path[0]) && is_separator(path[1])) {
        // The drive is two components (server and share, or "?" or "." and a
        // drive), four for "?\UNC\server\share".
        std::vector<std::size_t> ends;
        for (std::size_t pos = 2; ends.size() < 4 && pos <= path.size();) {
            std::size_t stop = pos;
            while (stop < path.size() && !is_separator(path[stop])) ++stop;
            ends.push_back(stop);
            pos = stop + 1;
        }
        const std::string_view first = path.substr(2, ends[0] - 2);
        const std::string_view second = ends.size() > 1 ? path.substr(ends[0] + 1, ends[1] - ends[0] - 1) : "";
        const bool unc_device = (first == "?" || first == ".") && (second == "UNC" || second == "unc");
        const std::size_t end = ends[std::min<std::size_t>(unc_device ? 3 : 1, ends.size() - 1)];
        a.drive = std::string(path.substr(0, end));
        for (char& c : a.drive)
            if (c == '/') c = '\\';
        a.rooted = true;
        a.rest = path.substr(end);
    } else if (path.size() >= 2 && path[1] == ':' &&
               ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z'))) {
        a.drive = std::string(path.substr(0, 2));
        a.rooted = path.size() > 2 && is_separator(path[2]);
        a.rest = path.substr(2);
    } else {
        a.rooted = !path.empty() && is_separator(path[0]);
        a.rest = path;
    }
    return a;
}

// The current directory of `drive` ("C:"), as the system keeps one per drive.
std::string drive_directory(const std::string& drive) {
    const std::wstring name = win32::widen(drive);
    std::wstring buffer(MAX_PATH, L'\0');
    for (;;) {
        const DWORD n = ::GetFullPathNameW(name.c_str(), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
        if (n == 0) {
            const DWORD error = ::GetLastError();
            throw OsError(win32::errno_of(error), drive, error);
        }
        if (n < buffer.size()) return win32::narrow(std::wstring_view(buffer.data(), n));
        buffer.resize(n);
    }
}

}  // namespace

// Whether `path` exists, following symbolic links (opening it does). Lookups
// that fail because something on the way is missing, is no directory or is
// no valid name count as absent (as pathlib's exists() takes them, not-ready
// drives and names the system cannot resolve included), and so does a name
// with a NUL; any other failure is the caller's to see. An entry that exists
// but cannot be opened (access denied, in use) still exists.
bool platform::exists(const std::string& path) {
    if (path.find('\0') != std::string::npos) return false;
    const std::wstring name = win32::widen(path);
    HANDLE h = ::CreateFileW(name.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                             nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h != INVALID_HANDLE_VALUE) {
        ::CloseHandle(h);
        return true;
    }
    DWORD error = ::GetLastError();
    if ((error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION)) {
        if (::GetFileAttributesW(name.c_str()) != INVALID_FILE_ATTRIBUTES) return true;
        error = ::GetLastError();
    }
    switch (error) {
        case ERROR_FILE_NOT_FOUND: case ERROR_PATH_NOT_FOUND: case ERROR_INVALID_DRIVE: case ERROR_NOT_READY:
        case ERROR_BAD_NETPATH: case ERROR_BAD_NET_NAME: case ERROR_INVALID_NAME: case ERROR_BAD_PATHNAME:
        case ERROR_FILENAME_EXCED_RANGE: case ERROR_DIRECTORY: case ERROR_CANT_RESOLVE_FILENAME:
            return false;
        default:
            throw OsError(win32::errno_of(error), path, error);
    }
}

std::string current_directory() {
    std::wstring buffer(MAX_PATH, L'\0');
    for (;;) {
        const DWORD n = ::GetCurrentDirectoryW(static_cast<DWORD>(buffer.size()), buffer.data());
        if (n == 0) {
            const DWORD error = ::GetLastError();
            throw OsError(win32::errno_of(error), "", error);
        }
        if (n < buffer.size()) return win32::narrow(std::wstring_view(buffer.data(), n));
        buffer.resize(n);
    }
}

// The path made absolute without resolving anything: a relative path joined
// to the current directory, "C:x" to drive C:'s, "\x" put on the current
// drive; then its anchor (with a separator) and the rest.
std::pair<std::string, std::string> platform::absolute_anchored(std::string path) {
    Anchored a = split_anchor(path);
    if (a.drive.empty() || !a.rooted) {
        const std::string base = a.drive.empty() ? current_directory() : drive_directory(a.drive);
        path = a.rooted ? split_anchor(base).drive + path : base + "\\" + std::string(a.rest);
        a = split_anchor(path);
    }
    return {a.drive + "\\", std::string(a.rest)};
}

}  // namespace git_utils
