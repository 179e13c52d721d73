// Cookies and certificates: cookie identifiers and names, encryption of cookie values, the secret
// of the preference cookie, certificate expiry.
//
// Arguments are borrowed and have passed the type tests of the function table. Each function
// returns a new reference, or null with an exception and its traceback entry.
#pragma once

#include <Python.h>

namespace modules_util {

PyObject *new_cookie_id();
PyObject *aps_unsigned_int_hash(PyObject *characters);
PyObject *get_cookie_name(PyObject *https);
PyObject *encrypt_cookie(PyObject *plain);
PyObject *decrypt_cookie(PyObject *encrypted);
PyObject *get_token();
PyObject *check_cert_expiration(PyObject *path);

}  // namespace modules_util
