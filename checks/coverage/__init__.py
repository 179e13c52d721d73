"""Line and branch coverage of the module under its tests and the fault-injection sweep."""
