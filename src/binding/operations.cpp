// The table of bound operations, made from operations.inc: each row names
// the operation, its documentation, its parameters and the step that hands
// the parsed arguments to its implementation as Args<op> (a jump).
#include "common.hpp"

namespace git_utils::binding {
namespace {

#define NAME(id)
#define OPERATION(id, returns, doc, params) \
    Ref run_##id(const Call& call, PyObject* const* values) { return impl(call, Args<id>{values}); }
#include "operations.inc"
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
