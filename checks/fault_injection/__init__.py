"""Allocation-failure injection into the module, and call-site coverage: docs/robustness.md."""
