"""The lab: real routing daemons in network namespaces, and the module's parsers on what they say.

For whoever wants to see the parsers meet text that was not written for them; `make lab`, told in
docs/lab.md. One file per concern: `topology` is the network as rows, `network` builds it and takes
it down, `daemons` configures and starts what routes in it, `inside` runs the module in a node,
`oracles` ask the system's own tools, `checks` hold what is compared with what, `outside` is this
machine as the lab must leave it.
"""
