// Cookies, the preference cookie's secret and certificates.
#include "veldarin/modules/cookies.h"

#include <climits>

#include "veldarin/modules/interned.h"
#include "veldarin/modules/native_services.h"
#include "veldarin/modules/python/errors.h"
#include "veldarin/modules/python/globals.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/python/traceback.h"
#include "veldarin/modules/python/with_statement.h"
#include "veldarin/modules/state.h"
#include "veldarin/modules/traceback_lines.h"

namespace modules_util {

namespace {

constexpr char https_prefix[] = "APSCOOKIE";
constexpr char http_prefix[] = "APCOOKIE";

// A `bytes` argument as NUL-terminated text; null with a TypeError for None, which the type test
// accepts.
const char *c_string(PyObject *bytes) {
    if (bytes != Py_None) return PyBytes_AS_STRING(bytes);
    raise_not_bytes(bytes);
    return nullptr;
}

Ref cookie_prefix(PyObject *https) {
    const Ref text = global(id::text_);
    if (!text) return {};
    const int secure = PyObject_IsTrue(https);
    if (secure < 0) return {};
    const Ref prefix = Ref::steal(PyBytes_FromString(secure ? https_prefix : http_prefix));
    if (!prefix) return {};
    return call(text, prefix.get(), interned[id::utf8]);
}

Ref serial_number_hash() {
    const Ref hash = global(id::aps_unsigned_int_hash);
    if (!hash) return {};
    const Ref serial_number = call_global(id::serial_number_ascii);
    if (!serial_number) return {};
    return Ref::steal(PyObject_CallOneArg(hash.get(), serial_number.get()));
}

Ref cookie_name(PyObject *https) {
    const Ref format =
        Ref::steal(PyObject_GetAttr(interned[id::cookie_name_format], interned[id::format]));
    if (!format) return {};
    const Ref prefix = cookie_prefix(https);
    if (!prefix) return {};
    const Ref hash = serial_number_hash();
    if (!hash) return {};
    return call(format, prefix.get(), hash.get());
}

PyObject *raise_out_of_cookie_memory() {
    namespace at = source_line::decrypt_cookie;
    const Ref logger = global(id::logger);
    if (!logger) return fail(at::log);
    const Ref logged = Ref::steal(PyObject_CallMethodOneArg(logger.get(), interned[id::error],
                                                            interned[id::no_cookie_memory]));
    if (!logged) return fail(at::log);
    raise_from_global(id::CFunctionError, interned[id::pymem_malloc_text]);
    return fail(at::no_memory);
}

// Path(text_(get_preference_cookie_secret_path()))
Ref secret_path() {
    const char *pathname = state.imports.get_preference_cookie_secret_path();
    const Ref path = global(id::Path_class);
    if (!path) return {};
    const Ref text = global(id::text_);
    if (!text) return {};
    const Ref bytes = Ref::steal(PyBytes_FromString(pathname));
    if (!bytes) return {};
    const Ref decoded = Ref::steal(PyObject_CallOneArg(text.get(), bytes.get()));
    if (!decoded) return {};
    return Ref::steal(PyObject_CallOneArg(path.get(), decoded.get()));
}

// path.is_file(): 1, 0, or -1 with an exception set.
int is_file(PyObject *path) {
    const Ref result = Ref::steal(PyObject_CallMethodNoArgs(path, interned[id::is_file]));
    return result ? PyObject_IsTrue(result.get()) : -1;
}

// open(path.absolute(), mode)
Ref open_secret(PyObject *path, PyObject *mode) {
    const Ref open = global(id::open);
    if (!open) return {};
    const Ref absolute = Ref::steal(PyObject_CallMethodNoArgs(path, interned[id::absolute]));
    if (!absolute) return {};
    return call(open, absolute.get(), mode);
}

// hexlify(urandom(32)).decode()
Ref new_secret() {
    const Ref hexlify = global(id::hexlify);
    if (!hexlify) return {};
    const Ref random = call_global(id::urandom, state.constants.token_bytes);
    if (!random) return {};
    const Ref hex = Ref::steal(PyObject_CallOneArg(hexlify.get(), random.get()));
    if (!hex) return {};
    return Ref::steal(PyObject_CallMethodNoArgs(hex.get(), interned[id::decode]));
}

bool write_secret(PyObject *file) {
    namespace at = source_line::get_token;
    const Ref write = Ref::steal(PyObject_GetAttr(file, interned[id::write]));
    if (!write) return fail(at::write);
    const Ref secret = new_secret();
    if (!secret) return fail(at::write);
    const Ref written = Ref::steal(PyObject_CallOneArg(write.get(), secret.get()));
    return written || fail(at::write);
}

// file.readline().strip()
Ref read_secret(PyObject *file) {
    const Ref line = Ref::steal(PyObject_CallMethodNoArgs(file, interned[id::readline]));
    if (!line) return {};
    return Ref::steal(PyObject_CallMethodNoArgs(line.get(), interned[id::strip]));
}

}  // namespace

PyObject *new_cookie_id() {
    namespace at = source_line::new_cookie_id;
    PyObject *id = PyLong_FromUnsignedLong(aps_get_new_cookie_id());
    return id ? id : fail(at::result);
}

PyObject *aps_unsigned_int_hash(PyObject *characters) {
    namespace at = source_line::aps_unsigned_int_hash;
    const char *text = c_string(characters);
    if (!text) return fail(at::result);
    PyObject *hash = PyLong_FromUnsignedLong(__get_aps_hash(text));
    return hash ? hash : fail(at::result);
}

PyObject *get_cookie_name(PyObject *https) {
    namespace at = source_line::get_cookie_name;
    Ref name = cookie_name(https);
    return name ? name.release() : fail(at::result);
}

// Without memory for the result the native buffer stays allocated, here and in decrypt_cookie: only
// success frees it.
PyObject *encrypt_cookie(PyObject *plain) {
    namespace at = source_line::encrypt_cookie;
    const char *text = c_string(plain);
    if (!text) return fail(at::wrap);
    char *encrypted = cookieval_wrap(text);
    PyObject *encrypted_bytes = PyBytes_FromString(encrypted);
    if (!encrypted_bytes) return fail(at::bytes);
    PyMem_Free(encrypted);
    return encrypted_bytes;
}

PyObject *decrypt_cookie(PyObject *encrypted) {
    namespace at = source_line::decrypt_cookie;
    if (encrypted == Py_None) {
        PyErr_SetString(PyExc_TypeError, "object of type 'NoneType' has no len()");
        return fail(at::length);
    }
    const Py_ssize_t decrypted_length = PyBytes_GET_SIZE(encrypted) + 1;
    if (decrypted_length > INT_MAX) {
        PyErr_SetString(PyExc_OverflowError, "value too large to convert to int");
        return fail(at::length);
    }
    auto *decrypted = static_cast<char *>(PyMem_Malloc(static_cast<size_t>(decrypted_length)));
    if (!decrypted) return raise_out_of_cookie_memory();
    state.imports.strtcpy(decrypted, static_cast<int>(decrypted_length),
                          PyBytes_AS_STRING(encrypted));
    cookieval_unwrap(decrypted);
    PyObject *decrypted_bytes = PyBytes_FromString(decrypted);
    if (!decrypted_bytes) return fail(at::bytes);
    PyMem_Free(decrypted);
    return decrypted_bytes;
}

PyObject *get_token() {
    namespace at = source_line::get_token;
    const Ref path = secret_path();
    if (!path) return fail(at::path);

    const int exists = is_file(path.get());
    if (exists < 0) return fail(at::is_file);
    if (!exists) {
        const Ref created = open_secret(path.get(), interned[id::write_mode]);
        if (!created) return fail(at::create);
        if (!run_with(created.get(), at::create, write_secret)) return nullptr;
    }

    const Ref opened = open_secret(path.get(), interned[id::read_mode]);
    if (!opened) return fail(at::open);
    Ref secret;
    const auto read = [&secret](PyObject *file) {
        secret = read_secret(file);
        return secret || fail(at::read);
    };
    if (!run_with(opened.get(), at::open, read)) return nullptr;
    if (!secret) {  // __exit__ swallowed the exception of the read
        raise_unbound_local("secret");
        return fail(at::result);
    }
    return secret.release();
}

PyObject *check_cert_expiration(PyObject *path) {
    namespace at = source_line::check_cert_expiration;
    const char *text = c_string(path);
    if (!text) return fail(at::result);
    return PyBool_FromLong(gui_chk_cert_expiration(text) == 0);
}

}  // namespace modules_util
