// The table of the thirty functions, and the way from a call of the interpreter to the body of a
// row: argument binding, type tests, the body.
#include "veldarin/modules/dispatch.h"

#include <type_traits>
#include <utility>

#include "veldarin/modules/cli.h"
#include "veldarin/modules/cookies.h"
#include "veldarin/modules/json_bridge.h"
#include "veldarin/modules/parsers/arp_table.h"
#include "veldarin/modules/parsers/bfd_neighbor.h"
#include "veldarin/modules/parsers/routing_table.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/python/traceback.h"
#include "veldarin/modules/state.h"
#include "veldarin/modules/traceback_lines.h"

namespace modules_util {

namespace {

// A body with named parameters, as a row of the table holds it.
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

constexpr Parameter any(StringId name) { return {name}; }
constexpr Parameter bytes(StringId name) { return {name, Parameter::bytes}; }
constexpr Parameter text(StringId name) { return {name, Parameter::text}; }
constexpr Parameter optional(StringId name) { return {name, Parameter::anything, Parameter::none}; }
constexpr Parameter sessions(StringId name) {
    return {name, Parameter::anything, Parameter::sessions};
}

using Unpacked = PyObject *(PyObject *const *arguments);  // borrowed; a new reference or null

struct Row {
    const char *name;
    Unpacked *unpack_call;
    const Query *query;
    Function function;
    bool is_query;
};

// In the order in which they are bound.
// clang-format off
#define FUNCTION(kind, name, ...) \
    Row{#name, unpack_call<name>, nullptr, {Function::kind, source_line::name::first, {__VA_ARGS__}}, false},
#define QUERY(kind, name, ...) \
    Row{#name, run_query<name>, &name, {Function::kind, source_line::name.first, {__VA_ARGS__}}, true},

constexpr Row rows[function_count] = {
    //       kind      name                                parameters
    FUNCTION(none,     new_cookie_id,                      )
    FUNCTION(one,      aps_unsigned_int_hash,              bytes(id::characters))
    FUNCTION(one,      get_cookie_name,                    any(id::https))
    FUNCTION(one,      encrypt_cookie,                     bytes(id::plain))
    FUNCTION(one,      decrypt_cookie,                     bytes(id::encrypted))
    FUNCTION(none,     get_token,                          )
    FUNCTION(one,      check_cert_expiration,              bytes(id::path))
    QUERY   (keywords, switch_acl_ingress_counter,         optional(id::policy_id))
    QUERY   (keywords, switch_acl_egress_counter,          optional(id::policy_id))
    QUERY   (keywords, switch_acl_prelookup_counter,       optional(id::policy_id))
    QUERY   (one,      list_switch_stp_state,              any(id::instance_id))
    QUERY   (one,      list_system_interface_physical,     text(id::name))
    QUERY   (none,     list_switch_lg_state,               )
    QUERY   (none,     list_switch_flapguard_status,       )
    QUERY   (one,      list_switch_port_statistics,        text(id::port_name))
    QUERY   (one,      list_switch_lldp_state,             text(id::port_name))
    QUERY   (keywords, list_switch_trunk_state,            optional(id::trunk_name))
    QUERY   (keywords, list_switch_mclag_list,             optional(id::mkey))
    QUERY   (none,     switch_mclag_icl,                   )
    QUERY   (one,      list_switch_igmp_snooping_group,    text(id::port_name))
    QUERY   (none,     list_system_flash_list_status,      )
    QUERY   (none,     list_system_link_monitor_status,    )
    QUERY   (none,     list_switch_module_summary,         )
    FUNCTION(one,      get_cli_command_output,             text(id::cmd_s))
    FUNCTION(keywords, get_bfd_neighbor,                   any(id::cmd), sessions(id::list_bfd))
    FUNCTION(none,     list_bfd_neighbor,                  )
    QUERY   (none,     get_system_sniffer_profile_summary, )
    QUERY   (keywords, capture_sniffer_profile,            text(id::profile_name), text(id::event))
    FUNCTION(one,      get_routing_table_result,           text(id::ip_address))
    FUNCTION(none,     get_system_arp_result,              )
};

#undef FUNCTION
#undef QUERY
// clang-format on

template <size_t... row>
constexpr std::array<Function, function_count> function_table(std::index_sequence<row...>) {
    return {rows[row].function...};
}

using AllRows = std::make_index_sequence<function_count>;

}  // namespace

constexpr std::array<Function, function_count> functions = function_table(AllRows());

namespace {

// The definition's method table is there from the module's creation on: its functions may be called
// before the module is executed, by a sibling that it imports, or after its import has failed.
// `module` is null for the functions that the import itself has bound.
[[gnu::cold]] PyObject *not_ready(PyObject *module, const Function &function) {
    PyErr_Format(
        PyExc_RuntimeError, "%s %s", module_name,
        state.progress == State::importing ? "is still being imported" : "has not been imported");
    add_early_traceback(module ? PyModule_GetDict(module) : nullptr,
                        methods[&function - functions.data()].ml_name, function.first_line);
    return nullptr;
}

PyObject *call_query(PyObject *module, const Function &function, const Query &query,
                     PyObject *argument) {
    if (state.progress != State::imported) return not_ready(module, function);
    if (!accepts(function.parameters[0], argument)) return fail(function.first_line);
    return run_query(query, &argument);
}

// What comes before the body may weigh against a body of a few instructions: it is compiled into
// every function but the queries.
template <size_t row>
PyObject *call_one(PyObject *module, PyObject *argument) {
    constexpr const Function &function = functions[row];
    if constexpr (rows[row].is_query) {
        return call_query(module, function, *rows[row].query, argument);
    } else {
        if (state.progress != State::imported) return not_ready(module, function);
        if (!accepts(function.parameters[0], argument)) return fail(function.first_line);
        return rows[row].unpack_call(&argument);
    }
}

PyObject *bind_and_call(PyObject *module, const char *name, const Function &function,
                        Unpacked *unpack_call, PyObject *positional, PyObject *named) {
    if (state.progress != State::imported) return not_ready(module, function);
    Ref bound[max_parameters];
    if (!bind(name, function, positional, named, bound)) return fail(function.first_line);
    PyObject *const arguments[max_parameters] = {bound[0].get(), bound[1].get()};
    return unpack_call(arguments);
}

// The keywords come as a dictionary, so that one that is no string gets here.
template <size_t row>
PyObject *call_with_keywords(PyObject *module, PyObject *positional, PyObject *named) {
    return bind_and_call(module, rows[row].name, functions[row], rows[row].unpack_call, positional,
                         named);
}

template <size_t row>
constexpr auto wrapper() {
    if constexpr (functions[row].kind == Function::keywords) {
        return call_with_keywords<row>;
    } else {
        return call_one<row>;
    }
}

constexpr int flags[] = {METH_NOARGS, METH_O, METH_VARARGS | METH_KEYWORDS};  // by kind

// A table of its own type, so that it is data of the file and nothing has to run to fill it.
template <typename rows>
struct MethodTable;
template <size_t... row>
struct MethodTable<std::index_sequence<row...>> {
    static inline const PyMethodDef table[] = {
        {rows[row].name,
         reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(wrapper<row>())),
         flags[functions[row].kind], nullptr}
        ...,
        {},
    };
};

}  // namespace

const PyMethodDef *const methods = MethodTable<AllRows>::table;

}  // namespace modules_util
