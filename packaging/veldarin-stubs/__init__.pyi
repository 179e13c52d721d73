# The type stub of veldarin.modules.modules_util for projects that install the simulator.
# "partial" in py.typed: a project's own modules of the package `veldarin` stay visible.
