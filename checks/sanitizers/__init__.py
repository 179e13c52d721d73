"""Every test under AddressSanitizer and UndefinedBehaviorSanitizer, and the parsers' under
valgrind's memcheck, which sees reads of memory that was never written: `make sanitize`.

    interpreter.supp   what memcheck may say of the interpreter
"""
