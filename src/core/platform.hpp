// What the shared core asks of the operating system besides starting git
// (process.hpp): paths and the file system for the repository root discovery
// (roots.cpp), the zone rules for the period starts (timespec.cpp). Each
// platform folder implements it: posix/paths.cpp and posix/clock.cpp,
// win32/paths.cpp and win32/clock.cpp; they also hold the public
// current_directory() and local_now(). Private to the core.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace git_utils::platform {

// The separator an answer is written with, and whether `c` separates path
// components (Windows: either slash).
char separator();
bool is_separator(char c);

// The path made absolute without resolving anything (a relative path joined
// to the current directory; on Windows "C:x" to drive C:'s, "\x" put on the
// current drive): its anchor, with a separator, and the rest.
std::pair<std::string, std::string> absolute_anchored(std::string path);

// Whether `path` exists, following symbolic links. Lookups that fail because
// something on the way is missing count as absent, and so does a name with a
// NUL; other failures throw OsError.
bool exists(const std::string& path);

// The local zone's offset east of UTC, in seconds, at `unix_seconds`, from the
// zone rules in force now (nothing is cached).
std::int64_t local_offset_at(std::int64_t unix_seconds);

}  // namespace git_utils::platform
