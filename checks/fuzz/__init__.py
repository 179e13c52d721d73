"""The parsers of command-line output under texts that nobody thought of: `make fuzz`.

libFuzzer makes inputs and follows which edges of the product's code they reach. Each input is a
call and what the appliance's command line prints; the native module and its twin in plain Python
must agree on it. What they disagree on, and what the sanitizers report, is kept in `found/`, and
the tests go through it from then on, as through the small corpus in `corpus/`.

    sample.py       what the bytes of an input mean
    characters.py   a character set in which every byte is a character worth trying
    compare.py      one input given to the module and to the twin
    seeds.py        inputs to begin with, of real texts and of the tests' own
    words.dict      what the parsers look for, for the fuzzer to put in
    native/         the fuzzer's targets: the embedded interpreter, and the text layer alone
    runner.py       the targets side by side for a while
    summary.py      what became of them
"""
