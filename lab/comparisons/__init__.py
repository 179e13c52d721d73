"""The comparisons of the module with the system's own tools."""
