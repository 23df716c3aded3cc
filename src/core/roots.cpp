// Repository root discovery: walks up the written form of an absolute path
// looking for a ".git" entry. No symbolic link is resolved and no ".." is
// collapsed, so the answer keeps the spelling the caller used.
#include "src/core/roots.hpp"
#include "utils/git_utils.hpp"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace git_utils {

namespace {

// The components of `path` that count: empty ones (repeated or trailing
// separators) and "." are dropped, ".." stays.
std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> parts;
    std::size_t pos = 0;
    while (pos <= path.size()) {
        std::size_t slash = path.find('/', pos);
        if (slash == std::string_view::npos) slash = path.size();
        std::string_view part = path.substr(pos, slash - pos);
        if (!part.empty() && part != ".") parts.push_back(part);
        pos = slash + 1;
    }
    return parts;
}

// "/" followed by the first `count` components.
std::string join_prefix(const std::vector<std::string_view>& parts, std::size_t count) {
    std::string path;
    for (std::size_t k = 0; k < count; ++k) {
        path += '/';
        path.append(parts[k]);
    }
    return path.empty() ? std::string("/") : path;
}

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

}  // namespace

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

std::optional<std::string> find_git_root(std::optional<std::string> start) {
    std::string current = start ? std::move(*start) : current_directory();
    if (current.empty() || current.front() != '/') {
        std::string cwd = current_directory();
        current = cwd + "/" + current;
    }
    std::vector<std::string_view> parts = components(current);
    for (std::size_t count = parts.size() + 1; count-- > 0;) {
        std::string candidate = join_prefix(parts, count);
        std::string marker = candidate == "/" ? std::string("/.git") : candidate + "/.git";
        if (exists(marker)) return candidate;
    }
    return std::nullopt;
}

std::string find_repo_root() {
    return *find_repo_root_with([] { return find_git_root(); },
                                [] { return std::optional<std::string>(current_directory()); });
}

}  // namespace git_utils
