"""The command-line tools, one module for each."""
