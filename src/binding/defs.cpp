// The table of bound operations: names, parameters (kinds, defaults,
// annotations), return annotations, documentation and implementations.
#include "common.hpp"

namespace git_utils::binding {

using D = Default;

const std::vector<FunctionDef>& function_defs() {
    static const std::vector<FunctionDef> defs = {
        {run_git_command,
         "Run git with the given arguments in repo_root and return (stdout, stderr, returncode).\n\n"
         "Both outputs are decoded as UTF-8 (invalid bytes become U+FFFD) with CR LF and CR turned into LF.\n"
         "A timeout returns ('', 'Command timed out', 1) and a missing git (or directory) returns\n"
         "('', 'git not found', 1); a non-zero exit is returned as data, never raised.",
         impl_run_git_command,
         {{"repo_root", "Path", D::Required, false}, {"args", "list[str]", D::Required, false},
          {"timeout", "int", D::Int30, false}},
         "tuple[str, str, int]"},
        {_git_output,
         "Run git and return its standard output; raise GitError with git's message when it fails.",
         impl_git_output,
         {{"repo_root", "Path", D::Required, false}, {"args", "list[str]", D::Required, false}},
         "str"},
    };
    return defs;
}

}  // namespace git_utils::binding
