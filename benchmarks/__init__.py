"""The speed and size of the module on this machine, beside what people would use instead."""
