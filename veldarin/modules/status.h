// Status queries: eighteen functions that ask the appliance's native code over the JSON bridge.
// Each is a row; the bridge in status.cpp runs a row.
#pragma once

#include <Python.h>

#include "lines.h"
#include "runtime/names.h"
#include "runtime/ref.h"
#include "services.h"

namespace modules_util {

// The request dictionary: {}, or {key: argument} on a condition.
struct Request {
    enum Keyed { never, always, if_true, unless_none } keyed = never;
    Name key = nullptr;
};

// One of the native functions that `event` chooses from.
struct CaptureEvent {
    Name event;
    json_object *(*build)(void *context, json_object *request, void *);
    int line;
};

inline constexpr CaptureEvent capture_events[] = {
    {&Names::Running, build_start_sniffer_profile_capture,  line::capture_event::running},
    {&Names::Stop,    build_stop_sniffer_profile_capture,   line::capture_event::stop   },
    {&Names::Pause,   build_pause_sniffer_profile_capture,  line::capture_event::pause  },
    {&Names::Delete,  build_delete_sniffer_profile_capture, line::capture_event::erase  },
};

struct Query {
    Request request;
    json_object *(*build)(void *context, json_object *request);  // null: no native call
    line::Query at;
    enum Variation { plain, by_event, one_interface } variation = plain;
};

inline constexpr Request empty;
constexpr Request always(Name key) { return {Request::always, key}; }
constexpr Request if_true(Name key) { return {Request::if_true, key}; }
constexpr Request unless_none(Name key) { return {Request::unless_none, key}; }

// The ACL egress and pre-lookup counters and the MCLAG queries are wired to no native function on
// purpose: they return what an argument-less JSONObject holds.
// clang-format off
#define QUERY(function, request, build) \
    inline constexpr Query function{request, build, line::function};
#define VARIATION(function, request, build, variation) \
    inline constexpr Query function{request, build, line::function, Query::variation};

//    function                            request                         native function
QUERY(switch_acl_ingress_counter,         if_true(&Names::policy_id),     build_switch_acl_ingress_stats)
QUERY(switch_acl_egress_counter,          if_true(&Names::policy_id),     nullptr)
QUERY(switch_acl_prelookup_counter,       if_true(&Names::policy_id),     nullptr)

QUERY(list_switch_stp_state,              always(&Names::instance_id),    build_switch_stp_state)
QUERY(list_switch_lg_state,               empty,                          build_switch_lg_state)
QUERY(list_switch_flapguard_status,       empty,                          build_switch_flapguard_status)
QUERY(list_switch_port_statistics,        unless_none(&Names::port_name), build_switch_port_statistics)
QUERY(list_switch_lldp_state,             unless_none(&Names::port_name), build_switch_lldp_state)
QUERY(list_switch_trunk_state,            if_true(&Names::trunk_name),    build_switch_trunk_state)
QUERY(list_switch_mclag_list,             if_true(&Names::mkey),          nullptr)
QUERY(switch_mclag_icl,                   empty,                          nullptr)
QUERY(list_switch_igmp_snooping_group,    if_true(&Names::port_name),     build_switch_igmp_snooping_group)
QUERY(list_switch_module_summary,         empty,                          build_switch_modules_summary)

VARIATION(list_system_interface_physical, always(&Names::name),           build_system_interface_physical, one_interface)
QUERY(list_system_flash_list_status,      empty,                          build_system_flash_list)
QUERY(list_system_link_monitor_status,    empty,                          build_system_link_monitor_status)

QUERY(get_system_sniffer_profile_summary, empty,                          build_system_sniffer_profile_summary)
VARIATION(capture_sniffer_profile,        always(&Names::profile_name_key), nullptr, by_event)

#undef QUERY
#undef VARIATION
// clang-format on

// Runs one query. `arguments` are borrowed and have passed the type tests: the request's value,
// then the event, as far as the query has them. A new reference, or null with an exception and its
// entry.
PyObject *run(const Query &query, PyObject *const *arguments);

template <const Query &query>
PyObject *run(PyObject *const *arguments) {
    return run(query, arguments);
}

}  // namespace modules_util
