// Status queries: eighteen functions that ask the appliance's native code over the JSON bridge.
// Each is a row; the bridge in status.cpp runs a row.
#pragma once

#include <Python.h>

#include "veldarin/modules/interned.h"
#include "veldarin/modules/native_services.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/traceback_lines.h"

namespace modules_util {

// The request dictionary: {}, or {key: argument} on a condition.
struct Request {
    enum When : char { never, always, if_true, unless_none };
    StringId key = id::none;
    When when = never;
};

// One of the native functions that `event` chooses from.
struct CaptureEvent {
    StringId event;
    int line;
    json_object *(*build)(void *context, json_object *request, void *);
};

inline constexpr CaptureEvent capture_events[] = {
    {id::Running, source_line::capture_event::running, build_start_sniffer_profile_capture },
    {id::Stop,    source_line::capture_event::stop,    build_stop_sniffer_profile_capture  },
    {id::Pause,   source_line::capture_event::pause,   build_pause_sniffer_profile_capture },
    {id::Delete,  source_line::capture_event::erase,   build_delete_sniffer_profile_capture},
};

struct Query {
    Request request;
    json_object *(*build)(void *context, json_object *request);  // null: no native call
    source_line::Query at;
    enum Kind : char { plain, capture, select_interface } kind = plain;
};

inline constexpr Request empty;
constexpr Request always(StringId key) { return {key, Request::always}; }
constexpr Request if_true(StringId key) { return {key, Request::if_true}; }
constexpr Request unless_none(StringId key) { return {key, Request::unless_none}; }

// The ACL egress and pre-lookup counters and the MCLAG queries are wired to no native function on
// purpose: they return what an argument-less JSONObject holds.
// clang-format off
#define QUERY(function, request, build) \
    inline constexpr Query function{request, build, source_line::function};
#define SPECIAL_QUERY(function, request, build, kind) \
    inline constexpr Query function{request, build, source_line::function, Query::kind};

//    function                            request                         native function
QUERY(switch_acl_ingress_counter,         if_true(id::policy_id),     build_switch_acl_ingress_stats)
QUERY(switch_acl_egress_counter,          if_true(id::policy_id),     nullptr)
QUERY(switch_acl_prelookup_counter,       if_true(id::policy_id),     nullptr)

QUERY(list_switch_stp_state,              always(id::instance_id),    build_switch_stp_state)
QUERY(list_switch_lg_state,               empty,                          build_switch_lg_state)
QUERY(list_switch_flapguard_status,       empty,                          build_switch_flapguard_status)
QUERY(list_switch_port_statistics,        unless_none(id::port_name), build_switch_port_statistics)
QUERY(list_switch_lldp_state,             unless_none(id::port_name), build_switch_lldp_state)
QUERY(list_switch_trunk_state,            if_true(id::trunk_name),    build_switch_trunk_state)
QUERY(list_switch_mclag_list,             if_true(id::mkey),          nullptr)
QUERY(switch_mclag_icl,                   empty,                          nullptr)
QUERY(list_switch_igmp_snooping_group,    if_true(id::port_name),     build_switch_igmp_snooping_group)
QUERY(list_switch_module_summary,         empty,                          build_switch_modules_summary)

SPECIAL_QUERY(list_system_interface_physical, always(id::name),           build_system_interface_physical, select_interface)
QUERY(list_system_flash_list_status,      empty,                          build_system_flash_list)
QUERY(list_system_link_monitor_status,    empty,                          build_system_link_monitor_status)

QUERY(get_system_sniffer_profile_summary, empty,                          build_system_sniffer_profile_summary)
SPECIAL_QUERY(capture_sniffer_profile,        always(id::profile_name_key), nullptr, capture)

#undef QUERY
#undef SPECIAL_QUERY
// clang-format on

// Runs one query. `arguments` are borrowed and have passed the type tests: the request's value,
// then the event, as far as the query has them. A new reference, or null with an exception and its
// entry.
PyObject *run_query(const Query &query, PyObject *const *arguments);

template <const Query &query>
PyObject *run_query(PyObject *const *arguments) {
    return run_query(query, arguments);
}

}  // namespace modules_util
