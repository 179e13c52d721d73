"""Runs the module's parsers on the output of real routing daemons in network namespaces.

`make lab` runs it; docs/lab.md describes it. `topology` holds the network as rows, `network` builds
it, `daemons` configures and starts the routing daemons, `node_agent` runs the module in a node,
`oracles` query the system's own tools, `comparisons` compare the module with them, and
`host_snapshot` checks that the lab leaves this machine unchanged.
"""
