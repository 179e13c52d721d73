"""The console's page in a browser: what drives it, and the tests."""
