// Session and cookie services over the native ones.
#include "session.h"

#include <climits>

#include "lines.h"
#include "runtime/errors.h"
#include "runtime/globals.h"
#include "runtime/names.h"
#include "runtime/ref.h"
#include "runtime/state.h"
#include "runtime/traceback.h"
#include "runtime/with.h"
#include "services.h"

namespace modules_util {

namespace {

constexpr char https_prefix[] = "APSCOOKIE";
constexpr char http_prefix[] = "APCOOKIE";

// A `bytes` argument as NUL-terminated text; null with a TypeError for None, which the type test
// lets through.
const char *text_of(PyObject *bytes) {
    if (bytes != Py_None) return PyBytes_AS_STRING(bytes);
    raise_not_bytes(bytes);
    return nullptr;
}

Ref cookie_prefix(PyObject *https) {
    const Ref text = global(names.text_);
    if (!text) return {};
    const int secure = PyObject_IsTrue(https);
    if (secure < 0) return {};
    const Ref prefix = Ref::steal(PyBytes_FromString(secure ? https_prefix : http_prefix));
    if (!prefix) return {};
    PyObject *const arguments[] = {prefix.get(), names.charset};
    return Ref::steal(PyObject_VectorcallDict(text.get(), arguments, 2, nullptr));
}

Ref serial_number_hash() {
    const Ref hash = global(names.aps_unsigned_int_hash);
    if (!hash) return {};
    const Ref serial_number = call_global(names.serial_number_ascii);
    if (!serial_number) return {};
    return Ref::steal(PyObject_CallOneArg(hash.get(), serial_number.get()));
}

Ref cookie_name(PyObject *https) {
    const Ref format = Ref::steal(PyObject_GetAttr(names.cookie_name_format, names.format));
    if (!format) return {};
    const Ref prefix = cookie_prefix(https);
    if (!prefix) return {};
    const Ref hash = serial_number_hash();
    if (!hash) return {};
    PyObject *const arguments[] = {prefix.get(), hash.get()};
    return Ref::steal(PyObject_VectorcallDict(format.get(), arguments, 2, nullptr));
}

PyObject *cookie_memory_failed() {
    namespace at = line::decrypt_cookie;
    const Ref logger = global(names.logger);
    if (!logger) return failed(at::log);
    const Ref logged =
        Ref::steal(PyObject_CallMethodOneArg(logger.get(), names.error, names.no_cookie_memory));
    if (!logged) return failed(at::log);
    raise_global(names.CFunctionError, names.PyMem_Malloc_);
    return failed(at::no_memory);
}

// Path(text_(get_preference_cookie_secret_path()))
Ref secret_path() {
    const char *pathname = state.imports.get_preference_cookie_secret_path();
    const Ref path = global(names.Path);
    if (!path) return {};
    const Ref text = global(names.text_);
    if (!text) return {};
    const Ref bytes = Ref::steal(PyBytes_FromString(pathname));
    if (!bytes) return {};
    const Ref decoded = Ref::steal(PyObject_CallOneArg(text.get(), bytes.get()));
    if (!decoded) return {};
    return Ref::steal(PyObject_CallOneArg(path.get(), decoded.get()));
}

// path.is_file(): 1, 0, or -1 with an exception set.
int is_file(PyObject *path) {
    const Ref answer = Ref::steal(PyObject_CallMethodNoArgs(path, names.is_file));
    return answer ? PyObject_IsTrue(answer.get()) : -1;
}

// open(path.absolute(), mode)
Ref open_secret(PyObject *path, PyObject *mode) {
    const Ref open = global(names.open);
    if (!open) return {};
    const Ref absolute = Ref::steal(PyObject_CallMethodNoArgs(path, names.absolute));
    if (!absolute) return {};
    PyObject *const arguments[] = {absolute.get(), mode};
    return Ref::steal(PyObject_VectorcallDict(open.get(), arguments, 2, nullptr));
}

// hexlify(urandom(32)).decode()
Ref new_secret() {
    const Ref hexlify = global(names.hexlify);
    if (!hexlify) return {};
    const Ref random = call_global(names.urandom, state.constants.token_size);
    if (!random) return {};
    const Ref hex = Ref::steal(PyObject_CallOneArg(hexlify.get(), random.get()));
    if (!hex) return {};
    return Ref::steal(PyObject_CallMethodNoArgs(hex.get(), names.decode));
}

bool write_secret(PyObject *file) {
    namespace at = line::get_token;
    const Ref write = Ref::steal(PyObject_GetAttr(file, names.write));
    if (!write) return failed(at::write);
    const Ref secret = new_secret();
    if (!secret) return failed(at::write);
    const Ref written = Ref::steal(PyObject_CallOneArg(write.get(), secret.get()));
    return written || failed(at::write);
}

// file.readline().strip()
Ref read_secret(PyObject *file) {
    const Ref line = Ref::steal(PyObject_CallMethodNoArgs(file, names.readline));
    if (!line) return {};
    return Ref::steal(PyObject_CallMethodNoArgs(line.get(), names.strip));
}

}  // namespace

PyObject *new_cookie_id() {
    namespace at = line::new_cookie_id;
    PyObject *id = PyLong_FromUnsignedLong(aps_get_new_cookie_id());
    return id ? id : failed(at::result);
}

PyObject *aps_unsigned_int_hash(PyObject *characters) {
    namespace at = line::aps_unsigned_int_hash;
    const char *text = text_of(characters);
    if (!text) return failed(at::result);
    PyObject *hash = PyLong_FromUnsignedLong(__get_aps_hash(text));
    return hash ? hash : failed(at::result);
}

PyObject *get_cookie_name(PyObject *https) {
    namespace at = line::get_cookie_name;
    Ref name = cookie_name(https);
    return name ? name.release() : failed(at::result);
}

// Without memory for the result the native buffer stays allocated, here and in decrypt_cookie: it
// is freed on success only.
PyObject *encrypt_cookie(PyObject *plain) {
    namespace at = line::encrypt_cookie;
    const char *text = text_of(plain);
    if (!text) return failed(at::wrap);
    char *encrypted = cookieval_wrap(text);
    PyObject *encrypted_bytes = PyBytes_FromString(encrypted);
    if (!encrypted_bytes) return failed(at::bytes);
    PyMem_Free(encrypted);
    return encrypted_bytes;
}

PyObject *decrypt_cookie(PyObject *encrypted) {
    namespace at = line::decrypt_cookie;
    if (encrypted == Py_None) {
        PyErr_SetString(PyExc_TypeError, "object of type 'NoneType' has no len()");
        return failed(at::length);
    }
    const Py_ssize_t decrypted_length = PyBytes_GET_SIZE(encrypted) + 1;
    if (decrypted_length > INT_MAX) {
        PyErr_SetString(PyExc_OverflowError, "value too large to convert to int");
        return failed(at::length);
    }
    auto *decrypted = static_cast<char *>(PyMem_Malloc(static_cast<size_t>(decrypted_length)));
    if (!decrypted) return cookie_memory_failed();
    state.imports.strtcpy(decrypted, static_cast<int>(decrypted_length),
                          PyBytes_AS_STRING(encrypted));
    cookieval_unwrap(decrypted);
    PyObject *decrypted_bytes = PyBytes_FromString(decrypted);
    if (!decrypted_bytes) return failed(at::bytes);
    PyMem_Free(decrypted);
    return decrypted_bytes;
}

PyObject *get_token() {
    namespace at = line::get_token;
    const Ref path = secret_path();
    if (!path) return failed(at::path);

    const int exists = is_file(path.get());
    if (exists < 0) return failed(at::is_file);
    if (!exists) {
        const Ref created = open_secret(path.get(), names.write_mode);
        if (!created) return failed(at::create);
        if (!with(created.get(), at::create, write_secret)) return nullptr;
    }

    const Ref opened = open_secret(path.get(), names.read_mode);
    if (!opened) return failed(at::open);
    Ref secret;
    const auto read = [&secret](PyObject *file) {
        secret = read_secret(file);
        return secret || failed(at::read);
    };
    if (!with(opened.get(), at::open, read)) return nullptr;
    if (!secret) {  // the file's exit swallowed the failure to read it
        raise_unbound_local("secret");
        return failed(at::result);
    }
    return secret.release();
}

PyObject *check_cert_expiration(PyObject *path) {
    namespace at = line::check_cert_expiration;
    const char *text = text_of(path);
    if (!text) return failed(at::result);
    return PyBool_FromLong(gui_chk_cert_expiration(text) == 0);
}

}  // namespace modules_util
