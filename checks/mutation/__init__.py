"""Mutation testing: every small change of the module's C++ sources must fail a test."""
