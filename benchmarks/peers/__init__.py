"""The same job by the means that people would use instead.

Each peer has the functions of the module that its means are for, under the same names and with the
same results. All but the compiled one get the text from the module's own command runner.
"""
