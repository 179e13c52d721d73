# The build adds modules_util.pyi.
