"""Modules that the management interface shares with the rest of the appliance."""
