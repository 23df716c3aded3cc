// Repository roots: the fallback of `find_repo_root`, over the steps a host
// may replace (its own `find_git_root`).
#pragma once

namespace git_utils {

// The root of the repository holding the current directory, or the current
// directory. `find()` gives an optional-like root; `cwd()` the directory.
template <class Find, class Cwd>
auto find_repo_root_with(Find&& find, Cwd&& cwd) {
    auto root = find();
    if (root) return root;
    return cwd();
}

}  // namespace git_utils
