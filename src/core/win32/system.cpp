// Text between UTF-8 and UTF-16, and error numbers for Windows error codes.
#include "src/core/win32/system.hpp"

#include <cerrno>
#include <cstdint>

namespace git_utils::win32 {

std::wstring widen(std::string_view s) {
    std::wstring out;
    out.reserve(s.size());
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    const auto continuation = [&](std::size_t i) { return i < s.size() && (byte(i) & 0xC0) == 0x80; };
    for (std::size_t i = 0; i < s.size();) {
        const unsigned char b = byte(i);
        char32_t cp = 0xFFFD;
        std::size_t len = 1;
        if (b < 0x80) {
            cp = b;
        } else if (b >= 0xC2 && b < 0xE0 && continuation(i + 1)) {
            cp = ((b & 0x1Fu) << 6) | (byte(i + 1) & 0x3Fu);
            len = 2;
        } else if (b >= 0xE0 && b < 0xF0 && continuation(i + 1) && continuation(i + 2)) {
            cp = ((b & 0x0Fu) << 12) | ((byte(i + 1) & 0x3Fu) << 6) | (byte(i + 2) & 0x3Fu);
            len = 3;
            if (cp < 0x800) cp = 0xFFFD, len = 1;  // overlong; surrogates pass on purpose
        } else if (b >= 0xF0 && b < 0xF5 && continuation(i + 1) && continuation(i + 2) && continuation(i + 3)) {
            cp = ((b & 0x07u) << 18) | ((byte(i + 1) & 0x3Fu) << 12) | ((byte(i + 2) & 0x3Fu) << 6) |
                 (byte(i + 3) & 0x3Fu);
            len = 4;
            if (cp < 0x10000 || cp > 0x10FFFF) cp = 0xFFFD, len = 1;
        }
        if (cp >= 0x10000) {
            out.push_back(static_cast<wchar_t>(0xD800 + ((cp - 0x10000) >> 10)));
            out.push_back(static_cast<wchar_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
        } else {
            out.push_back(static_cast<wchar_t>(cp));
        }
        i += len;
    }
    return out;
}

std::string narrow(std::wstring_view w) {
    std::string out;
    out.reserve(w.size());
    for (std::size_t i = 0; i < w.size(); ++i) {
        char32_t cp = static_cast<char16_t>(w[i]);
        if (cp >= 0xD800 && cp < 0xDC00 && i + 1 < w.size() && w[i + 1] >= 0xDC00 && w[i + 1] < 0xE000)
            cp = 0x10000 + ((cp - 0xD800) << 10) + (static_cast<char16_t>(w[++i]) - 0xDC00);
        if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

int errno_of(unsigned long winerror) {
    switch (winerror) {
        case 2: case 3: case 15: case 18: case 53: case 67: case 161: case 206:  // no such file, path, drive, share
            return ENOENT;
        case 5: case 32: case 33: case 65:  // access denied, sharing and lock violations
            return EACCES;
        case 267:  // ERROR_DIRECTORY: the name is not a directory
            return ENOTDIR;
        case 11: case 193:  // not a program
            return ENOEXEC;
        case 7: case 8: case 9: case 1816:
            return ENOMEM;
        case 4:
            return EMFILE;
        case 6:
            return EBADF;
        case 10:
            return E2BIG;
        case 80: case 183:
            return EEXIST;
        case 109: case 232:
            return EPIPE;
        default:
            return EINVAL;
    }
}

}  // namespace git_utils::win32
