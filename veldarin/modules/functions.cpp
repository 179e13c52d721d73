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

PyObject *const none_default = Py_None;

constexpr Parameter any(Name name) { return {name}; }
constexpr Parameter bytes(Name name) { return {name, &PyBytes_Type}; }
constexpr Parameter text(Name name) { return {name, &PyUnicode_Type}; }
constexpr Parameter optional(Name name) { return {name, nullptr, &none_default}; }
constexpr Parameter sessions(Name name) { return {name, nullptr, &state.sessions}; }

}  // namespace

// In the order in which they are bound.
// clang-format off
#define FUNCTION(kind, name, ...) \
    Function{Function::kind, #name, {__VA_ARGS__}, body<name>, line::name::first},
#define QUERY(kind, name, ...) \
    Function{Function::kind, #name, {__VA_ARGS__}, run<name>, line::name.first},

constexpr FunctionTable functions = {
    //       kind      name                                parameters
    FUNCTION(none,     new_cookie_id,                      )
    FUNCTION(one,      aps_unsigned_int_hash,              bytes(&Names::characters))
    FUNCTION(one,      get_cookie_name,                    any(&Names::https))
    FUNCTION(one,      encrypt_cookie,                     bytes(&Names::plain))
    FUNCTION(one,      decrypt_cookie,                     bytes(&Names::encrypted))
    FUNCTION(none,     get_token,                          )
    FUNCTION(one,      check_cert_expiration,              bytes(&Names::path))
    QUERY   (keywords, switch_acl_ingress_counter,         optional(&Names::policy_id))
    QUERY   (keywords, switch_acl_egress_counter,          optional(&Names::policy_id))
    QUERY   (keywords, switch_acl_prelookup_counter,       optional(&Names::policy_id))
    QUERY   (one,      list_switch_stp_state,              any(&Names::instance_id))
    QUERY   (one,      list_system_interface_physical,     text(&Names::name))
    QUERY   (none,     list_switch_lg_state,               )
    QUERY   (none,     list_switch_flapguard_status,       )
    QUERY   (one,      list_switch_port_statistics,        text(&Names::port_name))
    QUERY   (one,      list_switch_lldp_state,             text(&Names::port_name))
    QUERY   (keywords, list_switch_trunk_state,            optional(&Names::trunk_name))
    QUERY   (keywords, list_switch_mclag_list,             optional(&Names::mkey))
    QUERY   (none,     switch_mclag_icl,                   )
    QUERY   (one,      list_switch_igmp_snooping_group,    text(&Names::port_name))
    QUERY   (none,     list_system_flash_list_status,      )
    QUERY   (none,     list_system_link_monitor_status,    )
    QUERY   (none,     list_switch_module_summary,         )
    FUNCTION(one,      get_cli_command_output,             text(&Names::cmd_s))
    FUNCTION(keywords, get_bfd_neighbor,                   any(&Names::cmd), sessions(&Names::list_bfd))
    FUNCTION(none,     list_bfd_neighbor,                  )
    QUERY   (none,     get_system_sniffer_profile_summary, )
    QUERY   (keywords, capture_sniffer_profile,            text(&Names::profile_name), text(&Names::event))
    FUNCTION(one,      get_routing_table_result,           text(&Names::ip_address))
    FUNCTION(none,     get_system_arp_result,              )
};

#undef FUNCTION
#undef QUERY
// clang-format on

namespace {

// The definition's method table is there from the module's creation on: its functions may be called
// before the module is executed, or after that has failed.
bool is_ready() {
    if (state.ready) return true;
    PyErr_SetString(PyExc_RuntimeError, "veldarin.modules.modules_util has not been imported");
    return false;
}

template <size_t row>
PyObject *call(PyObject *, PyObject *argument) {
    constexpr const Function &function = functions[row];
    if (!is_ready()) return nullptr;
    if constexpr (function.kind == Function::one) {
        if (!accepts(function.parameters[0], argument)) return failed(function.first_line);
    }
    return function.body(&argument);
}

template <size_t row>
PyObject *call_with_keywords(PyObject *, PyObject *positional, PyObject *named) {
    constexpr const Function &function = functions[row];
    if (!is_ready()) return nullptr;
    Ref bound[most_parameters];
    if (!bind(function, positional, named, bound)) return failed(function.first_line);
    PyObject *const arguments[most_parameters] = {bound[0].get(), bound[1].get()};
    return function.body(arguments);
}

template <size_t row>
PyMethodDef method() {
    constexpr const Function &function = functions[row];
    if constexpr (function.kind == Function::keywords) {
        // The keywords come as a dictionary, so that one that is no string gets here.
        auto *entry = reinterpret_cast<void (*)()>(call_with_keywords<row>);
        return {function.name, reinterpret_cast<PyCFunction>(entry), METH_VARARGS | METH_KEYWORDS,
                nullptr};
    } else {
        return {function.name, call<row>, function.kind == Function::one ? METH_O : METH_NOARGS,
                nullptr};
    }
}

template <size_t... rows>
MethodTable method_table(std::index_sequence<rows...>) {
    return {method<rows>()..., PyMethodDef()};
}

}  // namespace

MethodTable methods = method_table(std::make_index_sequence<function_count>());

}  // namespace modules_util
