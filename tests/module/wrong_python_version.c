/* Linked into a variant of the product with --wrap=Py_GetVersion: the interpreter seems to be of
 * another release there, which is what the product's version check is about. For tests only. */
#include <stdlib.h>

const char *__wrap_Py_GetVersion(void);

const char *__wrap_Py_GetVersion(void) {
    const char *said = getenv("SEEMING_VERSION");
    return said ? said : "3.10.4 (stand-in)";
}
