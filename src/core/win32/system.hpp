// What the Windows parts of the core share: text between the core's UTF-8 and
// the system's UTF-16, and the system's error codes as error numbers. Private
// to the core; built on Windows only.
#pragma once

#include <string>
#include <string_view>

namespace git_utils::win32 {

// UTF-8 to UTF-16. Encoded surrogates (ED A0 80 .. ED BF BF, as Python's
// "surrogatepass" writes a str's lone surrogates) become those code units, so
// that any str the host passes arrives as the same UTF-16; other ill-formed
// bytes become U+FFFD.
std::wstring widen(std::string_view utf8);

// UTF-16 to UTF-8, a lone surrogate written as its three bytes (what the
// host's "surrogatepass" decoding gives back as the same str).
std::string narrow(std::wstring_view utf16);

// The error number a Windows error code stands for, as CPython maps them
// (ENOENT for a missing file or path, EACCES, ENOTDIR for a bad directory
// name, ...; EINVAL for the rest).
int errno_of(unsigned long winerror);

}  // namespace git_utils::win32
