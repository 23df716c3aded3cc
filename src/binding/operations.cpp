// The table of bound operations, made from operations.inc: each row names
// the operation, its documentation, its parameters and the step that reads
// the parsed arguments into the operation's Args struct.
#include "common.hpp"

namespace git_utils::binding {
namespace {

// `values` holds one argument per parameter, in order; a braced list is
// evaluated left to right, so field i receives values[i].
#define NAME(id)
#define PARAM(name, annotation, dflt) values[i++],
#define KWONLY PARAM
#define PARAM_AS(field, name, annotation, dflt) values[i++],
#define OPERATION(id, returns, doc, params)                              \
    Ref run_##id(const Call& call, [[maybe_unused]] PyObject* const* values) { \
        [[maybe_unused]] std::size_t i = 0;                              \
        return impl(call, Args<id>{params});                             \
    }
#include "operations.inc"
#undef PARAM
#undef KWONLY
#undef PARAM_AS
#undef OPERATION

}  // namespace

const std::vector<FunctionDef>& function_defs() {
    static const std::vector<FunctionDef> defs = {
#define PARAM(name, annotation, dflt) {#name, annotation, dflt, false},
#define KWONLY(name, annotation, dflt) {#name, annotation, dflt, true},
#define PARAM_AS(field, name, annotation, dflt) PARAM(name, annotation, dflt)
#define OPERATION(id, returns, doc, params) {id, doc, run_##id, {params}, returns},
#include "operations.inc"
#undef NAME
#undef PARAM
#undef KWONLY
#undef PARAM_AS
#undef OPERATION
    };
    return defs;
}

}  // namespace git_utils::binding
