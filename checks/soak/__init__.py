"""A million calls of all functions from several threads, in search of growth: `make soak`."""
