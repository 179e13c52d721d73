// Lists BFD neighbors: queries the summary of each address family, then the details of each
// session.
#include "veldarin/modules/parsers/bfd_neighbor_list.h"

#include "veldarin/modules/interned.h"
#include "veldarin/modules/parsers/bfd_neighbor.h"
#include "veldarin/modules/python/errors.h"
#include "veldarin/modules/python/globals.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/python/traceback.h"
#include "veldarin/modules/traceback_lines.h"

namespace modules_util {

namespace {

// prefix + neighbor_ip + " " + interface
Ref detail_command(PyObject *prefix, PyObject *neighbor_ip, PyObject *interface) {
    const Ref with_ip = Ref::steal(PyNumber_Add(prefix, neighbor_ip));
    if (!with_ip) return {};
    const Ref with_space = Ref::steal(PyNumber_Add(with_ip.get(), interned[id::space]));
    if (!with_space) return {};
    return Ref::steal(PyNumber_Add(with_space.get(), interface));
}

// get_bfd_neighbor(<detail command>, list_bfd)
Ref query_detail(PyObject *prefix, PyObject *neighbor_ip, PyObject *interface, PyObject *list_bfd) {
    const Ref function = global(id::get_bfd_neighbor);
    if (!function) return {};
    const Ref command = detail_command(prefix, neighbor_ip, interface);
    if (!command) return {};
    return call(function, command.get(), list_bfd);
}

// Replaces the exception of the merge with the one that the interpreter raises for dict(...,
// **mapping).
void reword_keyword_error(PyObject *mapping) {
    if (PyErr_ExceptionMatches(PyExc_AttributeError)) {
        PyErr_Format(PyExc_TypeError, "dict() argument after ** must be a mapping, not %.200s",
                     Py_TYPE(mapping)->tp_name);
    } else if (PyErr_ExceptionMatches(PyExc_KeyError)) {
        PyObject *type = nullptr;
        PyObject *value = nullptr;
        PyObject *traceback = nullptr;
        PyErr_Fetch(&type, &value, &traceback);
        // True for a KeyError of the merge itself or of a dictionary lookup: not yet normalized,
        // its value is a tuple of the key.
        const bool key_alone = value && PyTuple_Check(value) && PyTuple_GET_SIZE(value) == 1;
        const Ref arguments = Ref::borrow(value);
        PyErr_Restore(type, value, traceback);
        if (!key_alone) return;
        PyErr_Format(PyExc_TypeError, "dict() got multiple values for keyword argument '%S'",
                     PyTuple_GET_ITEM(arguments.get(), 0));
    }
}

// The keyword dictionary of dict(..., **mapping).
Ref keywords_of(PyObject *mapping) {
    constexpr int reject_duplicates = 2;
    if (PyDict_CheckExact(mapping)) return Ref::borrow(mapping);
    Ref keywords = Ref::steal(PyDict_New());
    if (!keywords) return {};
    if (_PyDict_MergeEx(keywords.get(), mapping, reject_duplicates) == 0) return keywords;
    reword_keyword_error(mapping);
    return {};
}

// dict(info, **info6)
Ref merge_families(PyObject *info, PyObject *info6) {
    const Ref keywords = keywords_of(info6);
    return keywords ? merge_dicts(info, keywords.get()) : Ref();
}

// copy.deepcopy(object)
Ref deep_copy(PyObject *object) {
    const Ref copy = global(id::copy);
    if (!copy) return {};
    return Ref::steal(PyObject_CallMethodOneArg(copy.get(), interned[id::deepcopy], object));
}

// sessions[key][field]
Ref session_field(PyObject *sessions, PyObject *key, PyObject *field) {
    const Ref session = Ref::steal(PyObject_GetItem(sessions, key));
    return session ? Ref::steal(PyObject_GetItem(session.get(), field)) : Ref();
}

// Appends the session to the holder if it has a field that only the output of details has.
bool append_if_reported(PyObject *holder, PyObject *list_bfd, PyObject *key) {
    namespace at = source_line::list_bfd_neighbor;
    const Ref session = Ref::steal(PyObject_GetItem(list_bfd, key));
    if (!session) return fail(at::filter);
    const int reported = PySequence_Contains(session.get(), interned[id::zebra_notifications]);
    if (reported < 0) return fail(at::filter);
    return !reported || PyList_Append(holder, session.get()) == 0 || fail(at::append);
}

// Queries the details of one session in both families, merges them into a copy of list_bfd, which
// replaces it, and appends the session. `known` has the session's address and interface.
bool append_neighbor(PyObject *holder, Ref &list_bfd, PyObject *known, PyObject *key) {
    namespace at = source_line::list_bfd_neighbor;
    const Ref neighbor_ip = session_field(known, key, interned[id::neighbor_ip]);
    if (!neighbor_ip) return fail(at::neighbor_ip);
    const Ref interface = session_field(known, key, interned[id::interface]);
    if (!interface) return fail(at::interface);
    const Ref info = query_detail(interned[id::bfd_detail_command], neighbor_ip.get(),
                                  interface.get(), list_bfd.get());
    if (!info) return fail(at::detail);
    const Ref info6 = query_detail(interned[id::bfd6_detail_command], neighbor_ip.get(),
                                   interface.get(), info.get());
    if (!info6) return fail(at::detail6);
    list_bfd = merge_families(info.get(), info6.get());
    if (!list_bfd) return fail(at::merge_detail);
    return append_if_reported(holder, list_bfd.get(), key);
}

// Fills the holder. Returns false with an exception and its traceback entry.
bool append_neighbors(PyObject *holder) {
    namespace at = source_line::list_bfd_neighbor;
    const Ref info = call_global(id::get_bfd_neighbor, interned[id::bfd_command]);
    if (!info) return fail(at::info);
    const Ref info6 = call_global(id::get_bfd_neighbor, interned[id::bfd6_command]);
    if (!info6) return fail(at::info6);
    Ref list_bfd = merge_families(info.get(), info6.get());
    if (!list_bfd) return fail(at::merge);
    if (PyDict_GET_SIZE(list_bfd.get()) == 0) return true;

    const Ref known = deep_copy(list_bfd.get());
    if (!known) return fail(at::keys);
    const Ref keys = Ref::steal(PyObject_GetIter(known.get()));
    if (!keys) return fail(at::each);
    while (const Ref key = Ref::steal(PyIter_Next(keys.get()))) {
        if (!append_neighbor(holder, list_bfd, known.get(), key.get())) return false;
    }
    return !PyErr_Occurred() || fail(at::each);
}

}  // namespace

PyObject *list_bfd_neighbor() {
    namespace at = source_line::list_bfd_neighbor;
    Ref holder = Ref::steal(PyList_New(0));
    if (!holder) return fail(at::holder);
    if (!append_neighbors(holder.get()) && !log_exception(at::log)) return nullptr;
    return holder.release();
}

}  // namespace modules_util
