// The native services as rows: name and form of the reply. The rows generate the identifiers, the
// table that Python reads, and the exported build_... functions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simulator.h"

// build_X(context, request) -> json-c object
#define QUERY_SERVICES(ROW)                                                                        \
    ROW(build_switch_acl_ingress_stats)                                                            \
    ROW(build_switch_stp_state)                                                                    \
    ROW(build_switch_lg_state)                                                                     \
    ROW(build_switch_flapguard_status)                                                             \
    ROW(build_switch_port_statistics)                                                              \
    ROW(build_switch_lldp_state)                                                                   \
    ROW(build_switch_trunk_state)                                                                  \
    ROW(build_switch_igmp_snooping_group)                                                          \
    ROW(build_switch_modules_summary)                                                              \
    ROW(build_system_interface_physical)                                                           \
    ROW(build_system_flash_list)                                                                   \
    ROW(build_system_link_monitor_status)                                                          \
    ROW(build_system_sniffer_profile_summary)

// build_X(context, request, third) -> json-c object
#define CAPTURE_SERVICES(ROW)                                                                      \
    ROW(build_start_sniffer_profile_capture)                                                       \
    ROW(build_stop_sniffer_profile_capture)                                                        \
    ROW(build_pause_sniffer_profile_capture)                                                       \
    ROW(build_delete_sniffer_profile_capture)

// Each has its own signature.
#define OTHER_SERVICES(ROW)                                                                        \
    ROW(get_cli_cmd_output, SIMULATOR_FORM_TEXT)                                                   \
    ROW(aps_get_new_cookie_id, SIMULATOR_FORM_COUNT)                                               \
    ROW(__get_aps_hash, SIMULATOR_FORM_COUNT)                                                      \
    ROW(cookieval_wrap, SIMULATOR_FORM_WRAPPED)                                                    \
    ROW(cookieval_unwrap, SIMULATOR_FORM_IN_PLACE)                                                 \
    ROW(gui_chk_cert_expiration, SIMULATOR_FORM_STATUS)

namespace simulator {

enum class Service : std::uint8_t {
#define IDENTIFIER(name) id_##name,
#define OTHER_IDENTIFIER(name, form) id_##name,
    QUERY_SERVICES(IDENTIFIER) CAPTURE_SERVICES(IDENTIFIER) OTHER_SERVICES(OTHER_IDENTIFIER)
#undef IDENTIFIER
#undef OTHER_IDENTIFIER
};

struct Row {
    const char *name;
    simulator_form form;
};

inline constexpr Row kRows[] = {
#define JSON_ROW(name) {#name, SIMULATOR_FORM_JSON},
#define OTHER_ROW(name, form) {#name, form},
    QUERY_SERVICES(JSON_ROW) CAPTURE_SERVICES(JSON_ROW) OTHER_SERVICES(OTHER_ROW)
#undef JSON_ROW
#undef OTHER_ROW
};
inline constexpr std::size_t kServices = sizeof kRows / sizeof kRows[0];

inline const Row &row(Service service) { return kRows[static_cast<std::size_t>(service)]; }

}  // namespace simulator
