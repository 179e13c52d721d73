"""Memory that fails on purpose, and the record of the module's fallible calls: `make faults`.

Every call of tests/support/call_cases.py, and the import, is repeated while its first allocation
fails, then its second, and so on until one goes through: once as a single failure, once with all
that follow. Each time in a process of its own, which tells what came out, whether anything stayed
behind, and whether the module still works.

    library.py   the native library under native/: failing memory, the record
    stage.py     one case set up so that only the module is on trial
    verdict.py   what may come out when memory fails, and what may not
    sweep.py     the points of a case, each in a child process
    imports.py   the import of the module as a case
    sites.py     the record against the sources and the shipped file
"""
