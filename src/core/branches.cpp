// Branch names: the checked-out branch, the short form of a user-supplied
// name, the default branch and whether a name exists here or on origin.
// All git runs are lenient: a failing git only means "no answer".
#include "utils/git_utils.hpp"

#include <array>

namespace git_utils {

namespace {

bool starts_with(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

constexpr std::string_view ORIGIN_HEAD = "refs/remotes/origin/HEAD";
constexpr std::string_view ORIGIN_REFS = "refs/remotes/origin/";
constexpr std::string_view ORIGIN = "origin/";

}  // namespace

std::optional<std::string> normalize_branch_name(std::optional<std::string_view> name) {
    if (!name || name->empty()) return std::nullopt;
    // White space is trimmed once, before any prefix goes: what a removed
    // prefix uncovers stays.
    std::string_view short_name = strip(*name);
    static constexpr std::array<std::string_view, 4> prefixes = {"refs/heads/", "refs/remotes/", "remotes/",
                                                                 "origin/"};
    // Passes repeat until one removes nothing; within a pass every prefix is
    // tried in turn on what the previous ones left.
    bool changed = true;
    while (changed) {
        changed = false;
        for (std::string_view prefix : prefixes) {
            if (starts_with(short_name, prefix)) {
                short_name.remove_prefix(prefix.size());
                changed = true;
            }
        }
    }
    if (short_name.empty()) return std::nullopt;
    return std::string(short_name);
}

std::optional<std::string> resolve_display_branch(GitBackend& git, const std::string& repo_root) {
    GitResult result = git.run(repo_root, {"branch", "--show-current"});
    if (result.returncode != 0) return std::nullopt;
    std::string_view branch = strip(result.out);
    // Empty output: HEAD is detached.
    if (branch.empty()) return std::nullopt;
    return std::string(branch);
}

std::string get_default_branch(GitBackend& git, const std::string& repo_root) {
    GitResult remote_head = git.run(repo_root, {"symbolic-ref", std::string(ORIGIN_HEAD)});
    if (remote_head.returncode == 0) {
        std::string_view target = strip(remote_head.out);
        if (!target.empty()) {
            if (starts_with(target, ORIGIN_REFS)) target.remove_prefix(ORIGIN_REFS.size());
            return std::string(target);
        }
    }
    for (const char* name : {"main", "master"}) {
        if (git.run(repo_root, {"rev-parse", "--verify", name}).returncode == 0) return name;
    }
    return "main";
}

bool branch_exists(GitBackend& git, const std::string& repo_root, std::string_view branch) {
    if (git.run(repo_root, {"rev-parse", "--verify", std::string(branch)}).returncode == 0) return true;
    if (starts_with(branch, ORIGIN)) return false;
    std::string remote = std::string(ORIGIN) + std::string(branch);
    return git.run(repo_root, {"rev-parse", "--verify", remote}).returncode == 0;
}

}  // namespace git_utils
