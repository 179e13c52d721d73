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
    enum Keyed : char { never, always, if_true, unless_none };
    Name key = Name::none;
    Keyed keyed = never;
};

// One of the native functions that `event` chooses from.
struct CaptureEvent {
    Name event;
    int line;
    json_object *(*build)(void *context, json_object *request, void *);
};

inline constexpr CaptureEvent capture_events[] = {
    {Name::Running, line::capture_event::running, build_start_sniffer_profile_capture },
    {Name::Stop,    line::capture_event::stop,    build_stop_sniffer_profile_capture  },
    {Name::Pause,   line::capture_event::pause,   build_pause_sniffer_profile_capture },
    {Name::Delete,  line::capture_event::erase,   build_delete_sniffer_profile_capture},
};

struct Query {
    Request request;
    json_object *(*build)(void *context, json_object *request);  // null: no native call
    line::Query at;
    enum Variation : char { plain, by_event, one_interface } variation = plain;
};

inline constexpr Request empty;
constexpr Request always(Name key) { return {key, Request::always}; }
constexpr Request if_true(Name key) { return {key, Request::if_true}; }
constexpr Request unless_none(Name key) { return {key, Request::unless_none}; }

// The ACL egress and pre-lookup counters and the MCLAG queries are wired to no native function on
// purpose: they return what an argument-less JSONObject holds.
// clang-format off
#define QUERY(function, request, build) \
    inline constexpr Query function{request, build, line::function};
#define VARIATION(function, request, build, variation) \
    inline constexpr Query function{request, build, line::function, Query::variation};

//    function                            request                         native function
QUERY(switch_acl_ingress_counter,         if_true(Name::policy_id),     build_switch_acl_ingress_stats)
QUERY(switch_acl_egress_counter,          if_true(Name::policy_id),     nullptr)
QUERY(switch_acl_prelookup_counter,       if_true(Name::policy_id),     nullptr)

QUERY(list_switch_stp_state,              always(Name::instance_id),    build_switch_stp_state)
QUERY(list_switch_lg_state,               empty,                          build_switch_lg_state)
QUERY(list_switch_flapguard_status,       empty,                          build_switch_flapguard_status)
QUERY(list_switch_port_statistics,        unless_none(Name::port_name), build_switch_port_statistics)
QUERY(list_switch_lldp_state,             unless_none(Name::port_name), build_switch_lldp_state)
QUERY(list_switch_trunk_state,            if_true(Name::trunk_name),    build_switch_trunk_state)
QUERY(list_switch_mclag_list,             if_true(Name::mkey),          nullptr)
QUERY(switch_mclag_icl,                   empty,                          nullptr)
QUERY(list_switch_igmp_snooping_group,    if_true(Name::port_name),     build_switch_igmp_snooping_group)
QUERY(list_switch_module_summary,         empty,                          build_switch_modules_summary)

VARIATION(list_system_interface_physical, always(Name::name),           build_system_interface_physical, one_interface)
QUERY(list_system_flash_list_status,      empty,                          build_system_flash_list)
QUERY(list_system_link_monitor_status,    empty,                          build_system_link_monitor_status)

QUERY(get_system_sniffer_profile_summary, empty,                          build_system_sniffer_profile_summary)
VARIATION(capture_sniffer_profile,        always(Name::profile_name_key), nullptr, by_event)

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
