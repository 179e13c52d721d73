// Lists BFD neighbours: the sessions that the summary commands know, each with its details.
#include "bfd.h"
#include "lines.h"
#include "runtime/errors.h"
#include "runtime/globals.h"
#include "runtime/names.h"
#include "runtime/ref.h"
#include "runtime/traceback.h"

namespace modules_util {

namespace {

// prefix + neighbor_ip + " " + interface
Ref detail_command(PyObject *prefix, PyObject *neighbor_ip, PyObject *interface) {
    const Ref with_ip = Ref::steal(PyNumber_Add(prefix, neighbor_ip));
    if (!with_ip) return {};
    const Ref with_blank = Ref::steal(PyNumber_Add(with_ip.get(), names.blank));
    if (!with_blank) return {};
    return Ref::steal(PyNumber_Add(with_blank.get(), interface));
}

// get_bfd_neighbor(<detail command>, list_bfd)
Ref detail(PyObject *prefix, PyObject *neighbor_ip, PyObject *interface, PyObject *list_bfd) {
    const Ref function = global(names.get_bfd_neighbor);
    if (!function) return {};
    const Ref command = detail_command(prefix, neighbor_ip, interface);
    if (!command) return {};
    PyObject *const arguments[] = {command.get(), list_bfd};
    return Ref::steal(PyObject_VectorcallDict(function.get(), arguments, 2, nullptr));
}

// Words the failure to take a mapping's keywords for dict(…, **mapping) as the interpreter does.
void reword_keyword_error(PyObject *mapping) {
    if (PyErr_ExceptionMatches(PyExc_AttributeError)) {
        PyErr_Format(PyExc_TypeError, "dict() argument after ** must be a mapping, not %.200s",
                     Py_TYPE(mapping)->tp_name);
    } else if (PyErr_ExceptionMatches(PyExc_KeyError)) {
        PyObject *type = nullptr;
        PyObject *value = nullptr;
        PyObject *traceback = nullptr;
        PyErr_Fetch(&type, &value, &traceback);
        // The merge itself, or a look-up of a dictionary: the value is still a tuple of the key.
        const bool key_alone = value && PyTuple_Check(value) && PyTuple_GET_SIZE(value) == 1;
        const Ref arguments = Ref::borrow(value);
        PyErr_Restore(type, value, traceback);
        if (!key_alone) return;
        PyErr_Format(PyExc_TypeError, "dict() got multiple values for keyword argument '%S'",
                     PyTuple_GET_ITEM(arguments.get(), 0));
    }
}

// The keyword dictionary of dict(…, **mapping).
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
Ref both_families(PyObject *info, PyObject *info6) {
    const Ref keywords = keywords_of(info6);
    return keywords ? merged(info, keywords.get()) : Ref();
}

// copy.deepcopy(object)
Ref deep_copy(PyObject *object) {
    const Ref copy = global(names.copy);
    if (!copy) return {};
    return Ref::steal(PyObject_CallMethodOneArg(copy.get(), names.deepcopy, object));
}

// sessions[key][field]
Ref session_field(PyObject *sessions, PyObject *key, PyObject *field) {
    const Ref session = Ref::steal(PyObject_GetItem(sessions, key));
    return session ? Ref::steal(PyObject_GetItem(session.get(), field)) : Ref();
}

// Appends the session to the holder if a detail output has reported it.
bool keep_reported(PyObject *holder, PyObject *list_bfd, PyObject *key) {
    namespace at = line::list_bfd_neighbor;
    const Ref session = Ref::steal(PyObject_GetItem(list_bfd, key));
    if (!session) return failed(at::filter);
    const int reported = PySequence_Contains(session.get(), names.zebra_notifications);
    if (reported < 0) return failed(at::filter);
    return !reported || PyList_Append(holder, session.get()) == 0 || failed(at::append);
}

// The details of one neighbour, of both families, merged into the working dictionary, which is
// replaced by a copy. `known` is what tells its address and interface.
bool list_neighbor(PyObject *holder, Ref &list_bfd, PyObject *known, PyObject *key) {
    namespace at = line::list_bfd_neighbor;
    const Ref neighbor_ip = session_field(known, key, names.neighbor_ip);
    if (!neighbor_ip) return failed(at::neighbor_ip);
    const Ref interface = session_field(known, key, names.interface);
    if (!interface) return failed(at::interface);
    const Ref info =
        detail(names.bfd_detail_command, neighbor_ip.get(), interface.get(), list_bfd.get());
    if (!info) return failed(at::detail);
    const Ref info6 =
        detail(names.bfd6_detail_command, neighbor_ip.get(), interface.get(), info.get());
    if (!info6) return failed(at::detail6);
    list_bfd = both_families(info.get(), info6.get());
    if (!list_bfd) return failed(at::merge_detail);
    return keep_reported(holder, list_bfd.get(), key);
}

// Fills the holder; false with an exception and its entry.
bool list_neighbors(PyObject *holder) {
    namespace at = line::list_bfd_neighbor;
    const Ref info = call_global(names.get_bfd_neighbor, names.bfd_command);
    if (!info) return failed(at::info);
    const Ref info6 = call_global(names.get_bfd_neighbor, names.bfd6_command);
    if (!info6) return failed(at::info6);
    Ref list_bfd = both_families(info.get(), info6.get());
    if (!list_bfd) return failed(at::merge);
    if (PyDict_GET_SIZE(list_bfd.get()) == 0) return true;

    const Ref known = deep_copy(list_bfd.get());
    if (!known) return failed(at::keys);
    const Ref keys = Ref::steal(PyObject_GetIter(known.get()));
    if (!keys) return failed(at::each);
    while (const Ref key = Ref::steal(PyIter_Next(keys.get()))) {
        if (!list_neighbor(holder, list_bfd, known.get(), key.get())) return false;
    }
    return !PyErr_Occurred() || failed(at::each);
}

}  // namespace

PyObject *list_bfd_neighbor() {
    namespace at = line::list_bfd_neighbor;
    Ref holder = Ref::steal(PyList_New(0));
    if (!holder) return failed(at::holder);
    if (!list_neighbors(holder.get()) && !logged(at::log)) return nullptr;
    return holder.release();
}

}  // namespace modules_util
