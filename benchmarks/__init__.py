"""Measures the module's speed, memory and size and compares them with competitors."""
