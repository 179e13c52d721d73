"""The console: a page and an HTTP interface that call the module's functions on a simulator.

`app` maps requests to `views`, which use a `session`. `arguments` decodes and `serialization`
encodes; `function_index` describes the functions. `replies` names what can be edited,
`scenario_store` reads and writes scenarios. `security` and `server` restrict access. `static`
holds the page.
"""
