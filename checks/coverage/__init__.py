"""Which lines and branches of the module run under its tests and its sweep of failing memory:
`make coverage`.

    __main__.py   runs both against the build that counts, and has gcovr read the counts
    counted.py    what was counted, held against what may be left out
    excluded.py   what may be left out, each with its reason
"""
