// Dispatches the interpreter's calls: binds the arguments, tests their types and calls the function
// or the JSON bridge.
#include "veldarin/modules/dispatch.h"

#include <array>
#include <iterator>
#include <type_traits>
#include <utility>

#include "veldarin/modules/cli.h"
#include "veldarin/modules/cookies.h"
#include "veldarin/modules/json_bridge.h"
#include "veldarin/modules/native_services.h"
#include "veldarin/modules/parsers/arp_table.h"
#include "veldarin/modules/parsers/bfd_neighbor.h"
#include "veldarin/modules/parsers/bfd_neighbor_list.h"
#include "veldarin/modules/parsers/routing_table.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/python/traceback.h"
#include "veldarin/modules/state.h"

namespace modules_util {

namespace {

// ------------------------------------------------------------------ table

// Takes borrowed arguments; returns a new reference or null.
using Implementation = PyObject *(PyObject *const *arguments);

// Calls a function that has a parameter for each argument.
template <auto function>
PyObject *unpack_call(PyObject *const *arguments) {
    if constexpr (std::is_invocable_v<decltype(function)>) {
        return function();
    } else if constexpr (std::is_invocable_v<decltype(function), PyObject *>) {
        return function(arguments[0]);
    } else {
        return function(arguments[0], arguments[1]);
    }
}

// A row of the function table. Exists in constant expressions only.
struct Row {
    const char *name;
    Implementation *implementation;  // null for a query
    Query query;
    Function function;
    bool is_query;
};

// The key of a request is the parameter's name, except for captures.
constexpr Row query_row(const char *name, Function function, Query query) {
    const bool is_capture = query.kind == Query::capture;
    query.key = is_capture ? id::profile_name_key : function.parameters[0].name;
    return {name, nullptr, query, function, true};
}

// NOLINTBEGIN(bugprone-macro-parentheses): `parameters` are calls of Function::with
#define PARAMETER(name, type, default_kind) \
    .with({string_id(#name), Parameter::type, Parameter::default_kind})
#define FUNCTION(kind, name, parameters, first_line) \
    Row{#name, unpack_call<name>, {}, Function{Function::kind, first_line} parameters, false},
#define QUERY_ROW(query, kind, name, parameters, when, build, ...)                       \
    query_row(#name, Function{Function::kind, QueryLines{__VA_ARGS__}.first} parameters, \
              {build, {__VA_ARGS__}, Query::when, Query::query, id::none}),
// NOLINTEND(bugprone-macro-parentheses)

constexpr Row table[] = {
#include "veldarin/modules/function_table.def"
};

using AllRows = std::make_index_sequence<std::size(table)>;

// The columns that calls need at run time.
template <size_t... row>
constexpr std::array<Function, sizeof...(row)> function_column(std::index_sequence<row...>) {
    return {table[row].function...};
}
constexpr auto all_functions = function_column(AllRows());
template <size_t row>
constexpr Query query_of = table[row].query;

// ------------------------------------------------------------------ calls

// A function may be called before the module is executed, by a sibling that the import runs, or
// after the import failed: the interpreter adds the methods of the definition when it creates the
// module. `module` is null for the function objects that a successful import binds.
[[gnu::cold]] PyObject *not_ready(PyObject *module, const Function &function) {
    PyErr_Format(
        PyExc_RuntimeError, "%s %s", module_name,
        state.progress == State::importing ? "is still being imported" : "has not been imported");
    add_early_traceback(module ? PyModule_GetDict(module) : nullptr,
                        methods[&function - functions].ml_name, function.first_line);
    return nullptr;
}

PyObject *call_query(PyObject *module, const Function &function, const Query &query,
                     PyObject *argument) {
    if (state.progress != State::imported) return not_ready(module, function);
    if (!accepts(function.parameters[0], argument)) return fail(function.first_line);
    return run_query(query, &argument);
}

// METH_NOARGS and METH_O. The checks are inlined into every wrapper except the queries', because
// the shortest functions are only a few instructions long.
template <size_t row>
PyObject *wrapper_one(PyObject *module, PyObject *argument) {
    constexpr const Function &function = all_functions[row];
    if constexpr (table[row].is_query) {
        return call_query(module, function, query_of<row>, argument);
    } else {
        if (state.progress != State::imported) return not_ready(module, function);
        if (!accepts(function.parameters[0], argument)) return fail(function.first_line);
        return table[row].implementation(&argument);
    }
}

PyObject *bind_and_call(PyObject *module, const char *name, const Function &function,
                        Implementation *implementation, PyObject *positional, PyObject *keywords) {
    if (state.progress != State::imported) return not_ready(module, function);
    Ref bound[max_parameters];
    if (!bind(name, function, positional, keywords, state.default_list_bfd, bound)) {
        return fail(function.first_line);
    }
    PyObject *const arguments[max_parameters] = {bound[0].get(), bound[1].get()};
    return implementation(arguments);
}

template <size_t row>
PyObject *implementation_of(PyObject *const *arguments) {
    if constexpr (table[row].is_query) return run_query(query_of<row>, arguments);
    else return table[row].implementation(arguments);
}

// METH_KEYWORDS, which passes keywords as a dict: the vectorcall convention would reject a keyword
// that is not a string before our own error could.
template <size_t row>
PyObject *wrapper_keywords(PyObject *module, PyObject *positional, PyObject *keywords) {
    return bind_and_call(module, table[row].name, all_functions[row], implementation_of<row>,
                         positional, keywords);
}

// ------------------------------------------------------------------ method table

template <size_t row>
constexpr auto wrapper() {
    if constexpr (table[row].function.kind == Function::keywords) return wrapper_keywords<row>;
    else return wrapper_one<row>;
}

constexpr int flags[] = {METH_NOARGS, METH_O, METH_VARARGS | METH_KEYWORDS};  // by kind

// A type with a static member: constant data, which no code has to fill at start.
template <typename rows>
struct MethodTable;
template <size_t... row>
struct MethodTable<std::index_sequence<row...>> {
    static inline const PyMethodDef methods[] = {
        {table[row].name,
         reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(wrapper<row>())),
         flags[table[row].function.kind], nullptr}
        ...,
        {},
    };
};

}  // namespace

const PyMethodDef *const methods = MethodTable<AllRows>::methods;
const Function *const functions = all_functions.data();

}  // namespace modules_util
