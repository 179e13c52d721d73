"""The console: a page, and an HTTP interface below /api/, to try every function of the module and
to see what crosses the native boundary. For GUI authors, on the machine they work at.

`app` puts the application together. `views` are the handlers; they call `bench`, which holds the
one open appliance. `calling` turns JSON into arguments, `showing` what came back into JSON;
`catalogue` is what is told of the functions. `answers` knows what can be edited, `shelf` the
scenarios on disk. `safety` and `server` keep strangers out. The page is in `static`.
"""
