// Paths and the file system on POSIX systems, for the repository root
// discovery (roots.cpp).
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "src/core/platform.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

namespace platform {

char separator() { return '/'; }
bool is_separator(char c) { return c == '/'; }

// Whether `path` exists, following symbolic links. Lookups that fail because
// something on the way is missing, is no directory or loops count as absent,
// and so does a name the system cannot take (an embedded NUL); any other
// failure (permission denied, ...) is the caller's to see.
bool exists(const std::string& path) {
    if (path.find('\0') != std::string::npos) return false;
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) return true;
    int err = errno;
    if (err == ENOENT || err == ENOTDIR || err == EBADF || err == ELOOP) return false;
    throw OsError(err, path);
}

}  // namespace platform

std::string current_directory() {
    std::string buffer(256, '\0');
    for (;;) {
        if (::getcwd(buffer.data(), buffer.size()) != nullptr) {
            buffer.resize(buffer.find('\0'));
            return buffer;
        }
        if (errno != ERANGE) throw OsError(errno, "");
        buffer.resize(buffer.size() * 2);
    }
}

std::pair<std::string, std::string> platform::absolute_anchored(std::string path) {
    if (path.empty() || path.front() != '/') path = current_directory() + "/" + path;
    return {"/", std::move(path)};
}

}  // namespace git_utils
