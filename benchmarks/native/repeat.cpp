// Repeats a call from C, so that no interpreter loop is measured with it: measures the processor
// time, has callgrind count the instructions, or counts the allocations.
#include <Python.h>
#include <valgrind/callgrind.h>

#include <ctime>

#include "veldarin/modules/python/ref.h"

namespace {

using modules_util::Ref;

// ------------------------------------------------------------------ repeated calls

// One call; all references are borrowed.
struct Call {
    PyObject *function;
    PyObject *const *arguments;
    size_t positional;
    PyObject *keywords;  // names of the arguments after the positional ones, or null
    PyObject *cleared;   // a dictionary to clear before every call, or null
    bool fails;          // every call must raise an exception
};

bool call_once(const Call &call) {
    if (call.cleared) PyDict_Clear(call.cleared);
    const Ref result = Ref::steal(
        PyObject_Vectorcall(call.function, call.arguments, call.positional, call.keywords));
    if (bool(result) == !call.fails) {
        PyErr_Clear();
        return true;
    }
    if (result) PyErr_SetString(PyExc_AssertionError, "the call did not raise an exception");
    return false;
}

bool repeat(const Call &call, Py_ssize_t times) {
    for (; times > 0; --times) {
        if (!call_once(call)) return false;
    }
    return true;
}

// The first parameters of every function here: (function, arguments, keywords, cleared, fails,
// times). `arguments` is a tuple of values, `keywords` a tuple with the names of the last of them
// or None, `cleared` a dictionary or None.
constexpr Py_ssize_t call_parts = 6;

bool parse(PyObject *const *parts, Py_ssize_t count, Py_ssize_t expected, Call &call,
           Py_ssize_t &times) {
    if (count != expected || !PyTuple_CheckExact(parts[1]) ||
        (parts[2] != Py_None && !PyTuple_CheckExact(parts[2])) ||
        (parts[3] != Py_None && !PyDict_CheckExact(parts[3]))) {
        PyErr_SetString(PyExc_TypeError,
                        "expected function, arguments, keywords, cleared, fails, times");
        return false;
    }
    call.function = parts[0];
    call.arguments = &PyTuple_GET_ITEM(parts[1], 0);
    call.keywords = parts[2] == Py_None ? nullptr : parts[2];
    const Py_ssize_t named = call.keywords ? PyTuple_GET_SIZE(call.keywords) : 0;
    call.positional = static_cast<size_t>(PyTuple_GET_SIZE(parts[1]) - named);
    call.cleared = parts[3] == Py_None ? nullptr : parts[3];
    call.fails = parts[4] == Py_True;
    times = PyLong_AsSsize_t(parts[5]);
    return times >= 0;
}

// ------------------------------------------------------------------ time

// The processor time of this thread alone: other processes do not count.
long long processor_time() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

// time(...): returns the processor time of all calls, in nanoseconds.
PyObject *time(PyObject *, PyObject *const *parts, Py_ssize_t count) {
    Call call;
    Py_ssize_t times = 0;
    if (!parse(parts, count, call_parts, call, times)) return nullptr;
    const long long begin = processor_time();
    if (!repeat(call, times)) return nullptr;
    return PyLong_FromLongLong(processor_time() - begin);
}

// ------------------------------------------------------------------ callgrind

// instrument(on): starts or stops callgrind's instrumentation. Each change takes callgrind some
// time.
PyObject *instrument(PyObject *, PyObject *on) {
    if (on == Py_True) {
        CALLGRIND_START_INSTRUMENTATION;
    } else {
        CALLGRIND_STOP_INSTRUMENTATION;
    }
    Py_RETURN_NONE;
}

// instructions(..., label): has callgrind dump the instructions of all calls under the label.
// Instrumentation must be on.
PyObject *instructions(PyObject *, PyObject *const *parts, Py_ssize_t count) {
    Call call;
    Py_ssize_t times = 0;
    if (!parse(parts, count, call_parts + 1, call, times)) return nullptr;
    const char *label = PyUnicode_AsUTF8(parts[call_parts]);
    if (!label) return nullptr;
    CALLGRIND_ZERO_STATS;
    const bool done = repeat(call, times);
    CALLGRIND_DUMP_STATS_AT(label);
    if (!done) return nullptr;
    Py_RETURN_NONE;
}

// ------------------------------------------------------------------ allocations

constexpr PyMemAllocatorDomain domains[] = {PYMEM_DOMAIN_MEM, PYMEM_DOMAIN_OBJ};
PyMemAllocatorEx underlying[2];
Py_ssize_t allocated = 0;

void *counted_malloc(void *context, size_t size) {
    ++allocated;
    const auto *next = static_cast<PyMemAllocatorEx *>(context);
    return next->malloc(next->ctx, size);
}
void *counted_calloc(void *context, size_t items, size_t size) {
    ++allocated;
    const auto *next = static_cast<PyMemAllocatorEx *>(context);
    return next->calloc(next->ctx, items, size);
}
void *counted_realloc(void *context, void *block, size_t size) {
    ++allocated;
    const auto *next = static_cast<PyMemAllocatorEx *>(context);
    return next->realloc(next->ctx, block, size);
}
void counted_free(void *context, void *block) {
    const auto *next = static_cast<PyMemAllocatorEx *>(context);
    next->free(next->ctx, block);
}

// allocations(...): returns how often the calls requested a new or a
// resized block.
PyObject *allocations(PyObject *, PyObject *const *parts, Py_ssize_t count) {
    Call call;
    Py_ssize_t times = 0;
    if (!parse(parts, count, call_parts, call, times)) return nullptr;
    allocated = 0;
    for (size_t i = 0; i < 2; ++i) {
        PyMem_GetAllocator(domains[i], &underlying[i]);
        PyMemAllocatorEx counted = {&underlying[i], counted_malloc, counted_calloc, counted_realloc,
                                    counted_free};
        PyMem_SetAllocator(domains[i], &counted);
    }
    const bool done = repeat(call, times);
    for (size_t i = 0; i < 2; ++i) PyMem_SetAllocator(domains[i], &underlying[i]);
    return done ? PyLong_FromSsize_t(allocated) : nullptr;
}

// ------------------------------------------------------------------ definition

template <typename Function>
PyCFunction cfunction(Function *function) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

PyMethodDef methods[] = {
    {"time",         cfunction(time),         METH_FASTCALL, nullptr},
    {"instrument",   instrument,              METH_O,        nullptr},
    {"instructions", cfunction(instructions), METH_FASTCALL, nullptr},
    {"allocations",  cfunction(allocations),  METH_FASTCALL, nullptr},
    {nullptr,        nullptr,                 0,             nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "bench_repeat", nullptr, 0, methods, nullptr, nullptr, nullptr, nullptr,
};

}  // namespace

PyMODINIT_FUNC PyInit_bench_repeat() { return PyModuleDef_Init(&definition); }
