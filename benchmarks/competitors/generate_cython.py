"""Generates modules_cython.pxi: the parsers and the status queries of the Cython competitor.

The parsers are those of the reference model, without annotations and docstrings: Cython would give
annotated variables C types. A parameter whose type the model checks first is declared `str`.

Usage: python generate_cython.py REFERENCE OUTPUT
"""

from __future__ import annotations

import ast
import sys
from pathlib import Path

_PARSERS = """
    get_bfd_neighbor list_bfd_neighbor get_routing_table_result get_system_arp_result
""".split()

# Function, native service or "-"; parameter of the function, condition for sending it.
_QUERIES = """
switch_acl_ingress_counter, build_switch_acl_ingress_stats, policy_id=None, policy_id
switch_acl_egress_counter, -, policy_id=None, policy_id
switch_acl_prelookup_counter, -, policy_id=None, policy_id
list_switch_stp_state, build_switch_stp_state, instance_id, True
list_switch_lg_state, build_switch_lg_state
list_switch_flapguard_status, build_switch_flapguard_status
list_switch_port_statistics, build_switch_port_statistics, str port_name, port_name is not None
list_switch_lldp_state, build_switch_lldp_state, str port_name, port_name is not None
list_switch_trunk_state, build_switch_trunk_state, trunk_name=None, trunk_name
list_switch_mclag_list, -, mkey=None, mkey
switch_mclag_icl, -
list_switch_igmp_snooping_group, build_switch_igmp_snooping_group, str port_name, port_name
list_system_flash_list_status, build_system_flash_list
list_system_link_monitor_status, build_system_link_monitor_status
list_switch_module_summary, build_switch_modules_summary
get_system_sniffer_profile_summary, build_system_sniffer_profile_summary
"""

_QUERY = """
def {function}({parameter}):
    cdef JSONObject request = JSONObject({request})
    cdef JSONObject response = JSONObject()
    {call}
    data = json.loads(json_object_to_json_string(response.value))
    request.release()
    response.release()
    return data
"""

# Native services of the other queries.
_SERVICES = ["build_system_interface_physical"]
_CAPTURES = [
    f"build_{event}_sniffer_profile_capture" for event in "start stop pause delete".split()
]

_EXTERN = '''
cdef extern from *:
    """
    extern struct json_object *{service}(void *context, struct json_object *request{more});
    """
    json_object *{service}(void *context, json_object *request{more})
'''


class _WithoutAnnotations(ast.NodeTransformer):
    def visit_AnnAssign(self, node: ast.AnnAssign) -> ast.AST:
        assert node.value
        return ast.Assign([node.target], node.value, lineno=node.lineno)

    def visit_arg(self, node: ast.arg) -> ast.AST:
        return ast.arg(node.arg)


def _parser(function: ast.FunctionDef) -> str:
    function.returns = None
    del function.body[0]  # the docstring
    function = _WithoutAnnotations().visit(function)
    first = function.body[0]
    if isinstance(first, ast.Expr) and isinstance(first.value, ast.Call):
        del function.body[0]  # the check of the first parameter's type
        function.args.args[0].arg = "str " + function.args.args[0].arg
    return ast.unparse(function)


def _query(row: str) -> str:
    function, service, parameter, condition = (*row.split(", "), "", "")[:4]
    name = parameter.removeprefix("str ").removesuffix("=None")
    sent = f'{{"{name}": {name}}}'
    conditional = f"{sent} if {condition} else {{}}"
    request = "{}" if not name else sent if condition == "True" else conditional
    if service == "-":
        return _QUERY.format(function=function, parameter=parameter, request=request, call="pass")
    call = f"response.value = {service}(NULL, request.value)"
    query = _QUERY.format(function=function, parameter=parameter, request=request, call=call)
    return _EXTERN.format(service=service, more="") + query


def main(reference: str, output: str) -> None:
    """Write the file."""
    functions = {
        node.name: node
        for node in ast.parse(Path(reference).read_text()).body
        if isinstance(node, ast.FunctionDef)
    }
    parsers = [_parser(functions[name]) + "\n" for name in _PARSERS]
    queries = [_query(row) for row in _QUERIES.strip().splitlines()]
    externs = [_EXTERN.format(service=name, more="") for name in _SERVICES]
    externs += [_EXTERN.format(service=name, more=", void *third") for name in _CAPTURES]
    Path(output).write_text("\n\n".join([*externs, *parsers, *queries]))


if __name__ == "__main__":
    main(*sys.argv[1:])
