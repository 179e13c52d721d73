"""Modules of the management interface that reach the appliance's native services."""
