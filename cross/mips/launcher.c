/* Runs the MIPS interpreter under user emulation as if it were a program of this machine: the
 * program is `sys.executable`, so that subprocesses, pytest-xdist's workers and virtual
 * environments work without registering the emulator with the kernel. A shell script would add
 * variables to an empty environment and descriptors to its children.
 *
 * Compiled with EMULATOR, SYSROOT, LAUNCHER (its own path) and INTERPRETER, absolute paths. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char **argv) {
    static char *const leading[] = {EMULATOR, "-L", SYSROOT, "-0", LAUNCHER, INTERPRETER};
    enum { LEADING = sizeof leading / sizeof *leading };
    char **arguments = calloc((size_t)argc + LEADING + 1, sizeof *arguments);
    if (arguments == NULL) {
        perror(LAUNCHER);
        return 127;
    }
    memcpy(arguments, leading, sizeof leading);
    if (argc > 1) memcpy(arguments + LEADING, argv + 1, (size_t)(argc - 1) * sizeof *argv);
    execv(EMULATOR, arguments);
    perror(EMULATOR);
    return 127;
}
