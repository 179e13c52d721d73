// The table of the thirty functions, and the way from a call of the interpreter to the body of a
// row: argument binding, type tests, the body.
#include "functions.h"

#include <type_traits>
#include <utility>

#include "arp.h"
#include "bfd.h"
#include "cli.h"
#include "lines.h"
#include "routing.h"
#include "runtime/ref.h"
#include "runtime/state.h"
#include "runtime/traceback.h"
#include "session.h"
#include "status.h"

namespace modules_util {

namespace {

// A body with named parameters, as a row of the table holds it.
template <auto function>
PyObject *body(PyObject *const *arguments) {
    if constexpr (std::is_invocable_v<decltype(function)>) {
        return function();
    } else if constexpr (std::is_invocable_v<decltype(function), PyObject *>) {
        return function(arguments[0]);
    } else {
        return function(arguments[0], arguments[1]);
    }
}

constexpr Parameter any(Name name) { return {name}; }
constexpr Parameter bytes(Name name) { return {name, Parameter::bytes}; }
constexpr Parameter text(Name name) { return {name, Parameter::text}; }
constexpr Parameter optional(Name name) { return {name, Parameter::anything, Parameter::none}; }
constexpr Parameter sessions(Name name) { return {name, Parameter::anything, Parameter::sessions}; }

using Body = PyObject *(PyObject *const *arguments);  // borrowed; a new reference or null

struct Row {
    const char *name;
    Body *body;
    const Query *query;
    Function function;
    bool is_query;
};

// In the order in which they are bound.
// clang-format off
#define FUNCTION(kind, name, ...) \
    Row{#name, body<name>, nullptr, {Function::kind, line::name::first, {__VA_ARGS__}}, false},
#define QUERY(kind, name, ...) \
    Row{#name, run<name>, &name, {Function::kind, line::name.first, {__VA_ARGS__}}, true},

constexpr Row rows[function_count] = {
    //       kind      name                                parameters
    FUNCTION(none,     new_cookie_id,                      )
    FUNCTION(one,      aps_unsigned_int_hash,              bytes(Name::characters))
    FUNCTION(one,      get_cookie_name,                    any(Name::https))
    FUNCTION(one,      encrypt_cookie,                     bytes(Name::plain))
    FUNCTION(one,      decrypt_cookie,                     bytes(Name::encrypted))
    FUNCTION(none,     get_token,                          )
    FUNCTION(one,      check_cert_expiration,              bytes(Name::path))
    QUERY   (keywords, switch_acl_ingress_counter,         optional(Name::policy_id))
    QUERY   (keywords, switch_acl_egress_counter,          optional(Name::policy_id))
    QUERY   (keywords, switch_acl_prelookup_counter,       optional(Name::policy_id))
    QUERY   (one,      list_switch_stp_state,              any(Name::instance_id))
    QUERY   (one,      list_system_interface_physical,     text(Name::name))
    QUERY   (none,     list_switch_lg_state,               )
    QUERY   (none,     list_switch_flapguard_status,       )
    QUERY   (one,      list_switch_port_statistics,        text(Name::port_name))
    QUERY   (one,      list_switch_lldp_state,             text(Name::port_name))
    QUERY   (keywords, list_switch_trunk_state,            optional(Name::trunk_name))
    QUERY   (keywords, list_switch_mclag_list,             optional(Name::mkey))
    QUERY   (none,     switch_mclag_icl,                   )
    QUERY   (one,      list_switch_igmp_snooping_group,    text(Name::port_name))
    QUERY   (none,     list_system_flash_list_status,      )
    QUERY   (none,     list_system_link_monitor_status,    )
    QUERY   (none,     list_switch_module_summary,         )
    FUNCTION(one,      get_cli_command_output,             text(Name::cmd_s))
    FUNCTION(keywords, get_bfd_neighbor,                   any(Name::cmd), sessions(Name::list_bfd))
    FUNCTION(none,     list_bfd_neighbor,                  )
    QUERY   (none,     get_system_sniffer_profile_summary, )
    QUERY   (keywords, capture_sniffer_profile,            text(Name::profile_name), text(Name::event))
    FUNCTION(one,      get_routing_table_result,           text(Name::ip_address))
    FUNCTION(none,     get_system_arp_result,              )
};

#undef FUNCTION
#undef QUERY
// clang-format on

template <size_t... row>
constexpr std::array<Function, function_count> function_table(std::index_sequence<row...>) {
    return {rows[row].function...};
}

using EveryRow = std::make_index_sequence<function_count>;

}  // namespace

constexpr std::array<Function, function_count> functions = function_table(EveryRow());

namespace {

// The definition's method table is there from the module's creation on: its functions may be called
// before the module is executed, by a sibling that it imports, or after its import has failed.
// `module` is null for the functions that the import itself has bound.
[[gnu::cold]] PyObject *not_ready(PyObject *module, const Function &function) {
    PyErr_Format(
        PyExc_RuntimeError, "%s %s", module_name,
        state.progress == State::importing ? "is still being imported" : "has not been imported");
    failed_early(module ? PyModule_GetDict(module) : nullptr,
                 methods[&function - functions.data()].ml_name, function.first_line);
    return nullptr;
}

PyObject *call_query(PyObject *module, const Function &function, const Query &query,
                     PyObject *argument) {
    if (state.progress != State::imported) return not_ready(module, function);
    if (!accepts(function.parameters[0], argument)) return failed(function.first_line);
    return run(query, &argument);
}

// What comes before the body may weigh against a body of a few instructions: it is compiled into
// every function but the queries.
template <size_t row>
PyObject *call(PyObject *module, PyObject *argument) {
    constexpr const Function &function = functions[row];
    if constexpr (rows[row].is_query) {
        return call_query(module, function, *rows[row].query, argument);
    } else {
        if (state.progress != State::imported) return not_ready(module, function);
        if (!accepts(function.parameters[0], argument)) return failed(function.first_line);
        return rows[row].body(&argument);
    }
}

PyObject *bind_and_call(PyObject *module, const char *name, const Function &function, Body *body,
                        PyObject *positional, PyObject *named) {
    if (state.progress != State::imported) return not_ready(module, function);
    Ref bound[most_parameters];
    if (!bind(name, function, positional, named, bound)) return failed(function.first_line);
    PyObject *const arguments[most_parameters] = {bound[0].get(), bound[1].get()};
    return body(arguments);
}

// The keywords come as a dictionary, so that one that is no string gets here.
template <size_t row>
PyObject *call_with_keywords(PyObject *module, PyObject *positional, PyObject *named) {
    return bind_and_call(module, rows[row].name, functions[row], rows[row].body, positional, named);
}

template <size_t row>
constexpr auto entry() {
    if constexpr (functions[row].kind == Function::keywords) {
        return call_with_keywords<row>;
    } else {
        return call<row>;
    }
}

constexpr int flags[] = {METH_NOARGS, METH_O, METH_VARARGS | METH_KEYWORDS};  // by kind

// A table of its own type, so that it is data of the file and nothing has to run to fill it.
template <typename rows>
struct Methods;
template <size_t... row>
struct Methods<std::index_sequence<row...>> {
    static inline const PyMethodDef table[] = {
        {rows[row].name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(entry<row>())),
         flags[functions[row].kind], nullptr}
        ...,
        {},
    };
};

}  // namespace

const PyMethodDef *const methods = Methods<EveryRow>::table;

}  // namespace modules_util
