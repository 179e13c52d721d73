"""Differential fuzzing of the parsers with libFuzzer: `make fuzz`."""
