"""The stand-in's tools for a person at a terminal: `tour`, `call`, `parse`.

One file per tool; `terminal` is what they say errors with, `signatures` what they know of the
module's functions. A usage error is one line and exit status 2, a failed call exit status 1.
"""
