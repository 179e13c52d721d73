"""The tests under AddressSanitizer, UndefinedBehaviorSanitizer and valgrind's memcheck."""
