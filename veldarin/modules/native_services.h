// The native services of the management process. The process that loads the module resolves them.
// The module calls them with the interpreter lock held, and passes null for every `context` and
// unnamed pointer.
#pragma once

#include "util/json.h"

extern "C" {

// json-c: the object as text, which the object owns; "null" for a null object, null without memory.
const char *json_object_to_json_string(json_object *object);

// Cookies and certificates. Texts are NUL-terminated.
unsigned long aps_get_new_cookie_id();
unsigned long __get_aps_hash(const char *text);  // NOLINT(bugprone-reserved-identifier)
char *cookieval_wrap(const char *text);          // the caller owns it (PyMem_Free); never null
int cookieval_unwrap(char *text);                // in place; the text does not grow
int gui_chk_cert_expiration(const char *path);   // 0: valid

// Status queries. The caller owns the reply, which may be null.
json_object *build_switch_acl_ingress_stats(void *context, json_object *request);
json_object *build_switch_stp_state(void *context, json_object *request);
json_object *build_switch_lg_state(void *context, json_object *request);
json_object *build_switch_flapguard_status(void *context, json_object *request);
json_object *build_switch_port_statistics(void *context, json_object *request);
json_object *build_switch_lldp_state(void *context, json_object *request);
json_object *build_switch_trunk_state(void *context, json_object *request);
json_object *build_switch_igmp_snooping_group(void *context, json_object *request);
json_object *build_switch_modules_summary(void *context, json_object *request);
json_object *build_system_interface_physical(void *context, json_object *request);
json_object *build_system_flash_list(void *context, json_object *request);
json_object *build_system_link_monitor_status(void *context, json_object *request);
json_object *build_system_sniffer_profile_summary(void *context, json_object *request);
json_object *build_start_sniffer_profile_capture(void *context, json_object *request, void *);
json_object *build_stop_sniffer_profile_capture(void *context, json_object *request, void *);
json_object *build_pause_sniffer_profile_capture(void *context, json_object *request, void *);
json_object *build_delete_sniffer_profile_capture(void *context, json_object *request, void *);

// Command line. The caller owns the output (PyMem_Free); null if the command failed.
char *get_cli_cmd_output(void *, const char *command);

}  // extern "C"
