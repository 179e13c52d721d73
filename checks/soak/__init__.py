"""A million calls of all functions from several threads, successes and failures mixed: `make soak`.

What a call leaves behind shows as growth, however little it is and wherever it lies.

    stage.py     the cases of tests/support/call_cases.py, called from many threads on one device
    measure.py   what is counted, and when it is flat
    page.py      the picture and the figures in docs/
"""
