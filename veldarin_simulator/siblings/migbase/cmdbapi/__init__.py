"""The appliance's configuration database."""
