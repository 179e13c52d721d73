"""The console: a page and an HTTP interface that call the module's functions on a simulator.

`app` maps requests to `views`, which use a `session`. `arguments` decodes and `serialization`
encodes; `function_index` describes the functions, `openapi` the interface, and `code_examples`
writes calls as code. `replies` names what can be edited, `scenario_store` reads and writes
scenarios, `archive` packs them. `errors` lists what can go wrong. `security` and `server` restrict
access. `static` holds the page.
"""
