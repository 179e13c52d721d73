// Looks up and calls global names.
#include "veldarin/modules/python/globals.h"

#include "veldarin/modules/python/errors.h"
#include "veldarin/modules/state.h"

namespace modules_util {

namespace {

uint64_t globals_version() {
    return reinterpret_cast<PyDictObject *>(state.globals)->ma_version_tag;
}

// Apart from global(), whose common path then needs no stack frame.
[[gnu::noinline]] Ref look_up(StringId name) {
    // Read before the lookup, which may run code that changes the dictionary.
    const uint64_t version = globals_version();
    PyObject *own = PyDict_GetItemWithError(state.globals, interned[name]);
    if (!own) return PyErr_Occurred() ? Ref() : builtin(interned[name]);
    state.global_cache[name] = {version, own};
    return Ref::borrow(own);
}

}  // namespace

Ref global(StringId name) {
    const CachedGlobal &cached = state.global_cache[name];
    return cached.version == globals_version() ? Ref::borrow(cached.value) : look_up(name);
}

Ref builtin(PyObject *name) {
    Ref value = Ref::steal(PyObject_GetAttr(state.builtins, name));
    if (!value && PyErr_ExceptionMatches(PyExc_AttributeError)) raise_undefined_name(name);
    return value;
}

Ref call_global(StringId callee, PyObject *argument) {
    const Ref function = global(callee);
    if (!function) return {};
    return Ref::steal(PyObject_CallOneArg(function.get(), argument));
}

Ref call_global(StringId callee) {
    const Ref function = global(callee);
    if (!function) return {};
    return Ref::steal(PyObject_CallNoArgs(function.get()));
}

Ref call(const Ref &function, PyObject *first, PyObject *second) {
    PyObject *const arguments[] = {first, second};
    return Ref::steal(PyObject_Vectorcall(function.get(), arguments, 2, nullptr));
}

}  // namespace modules_util
