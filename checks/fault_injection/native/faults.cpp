// Allocation-failure injection. _testcapi's set_nomemory fails the allocations. It cannot be
// suspended, so our hooks call it only while injection is enabled.
#include "faults.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace faults {
namespace {

constexpr PyMemAllocatorDomain domains[] = {PYMEM_DOMAIN_RAW, PYMEM_DOMAIN_MEM, PYMEM_DOMAIN_OBJ};
constexpr int domain_count = 3;

PyMemAllocatorEx original[domain_count];
PyMemAllocatorEx failing[domain_count];  // set_nomemory's
PyObject *set_nomemory = nullptr;        // owned
long live_blocks = 0;

// The state of a faults_call.
bool enabled = false;  // injection
bool under_test = false;
int allocator = FAULTS_INTERPRETER;
int first_failure = 0;  // 0: none
bool is_persistent = false;
const void **trace = nullptr;
long trace_size = 0;
faults_report report;

class SuspendInjection {
public:
    SuspendInjection() : saved_(enabled) { enabled = false; }
    ~SuspendInjection() { enabled = saved_; }
    SuspendInjection(const SuspendInjection &) = delete;
    SuspendInjection &operator=(const SuspendInjection &) = delete;

private:
    bool saved_;
};

void count_failure() {
    ++report.failures;
    const char *site = log_triggered();
    if (report.failures == 1) report.site = site;
}

// ------------------------------------------------------------------ the interpreter's allocators

// An allocator may forward a large request to another domain: only the outermost one counts.
int depth = 0;

// Makes a request of the original or the failing allocator, and counts the blocks.
template <typename Allocate>
void *request(void *domain, bool is_new, Allocate &&allocate) {
    auto *chosen = static_cast<PyMemAllocatorEx *>(domain);
    if (enabled && allocator == FAULTS_INTERPRETER) {
        if (report.allocations < trace_size) trace[report.allocations] = current_row();
        ++report.allocations;
        chosen = &failing[chosen - original];
    }
    ++depth;
    void *block = allocate(*chosen);
    --depth;
    if (block == nullptr && enabled) count_failure();
    if (block != nullptr && is_new && depth == 0) ++live_blocks;
    return block;
}

void *hook_malloc(void *domain, size_t size) {
    return request(domain, true, [&](auto &next) { return next.malloc(next.ctx, size); });
}

void *hook_calloc(void *domain, size_t count, size_t size) {
    return request(domain, true, [&](auto &next) { return next.calloc(next.ctx, count, size); });
}

void *hook_realloc(void *domain, void *old, size_t size) {
    return request(domain, old == nullptr,
                   [&](auto &next) { return next.realloc(next.ctx, old, size); });
}

void hook_free(void *domain, void *block) {
    auto *next = static_cast<PyMemAllocatorEx *>(domain);
    if (block != nullptr && depth == 0) --live_blocks;
    ++depth;
    next->free(next->ctx, block);
    --depth;
}

// set_nomemory(start, stop) fails the requests after `start`, up to `stop`; 0 means all of them.
bool arm_interpreter(int nth, bool persistent) {
    const int start = nth > 0 ? nth - 1 : INT_MAX;
    PyObject *result =
        PyObject_CallFunction(set_nomemory, "ii", start, persistent ? 0 : start + (nth > 0));
    Py_XDECREF(result);
    return result != nullptr;
}

// ------------------------------------------------------------------ json-c's allocators

bool json_c_fails() {
    if (!enabled || allocator != FAULTS_JSON_C) return false;
    ++report.allocations;
    const bool fails = first_failure > 0 && (report.allocations == first_failure ||
                                             (is_persistent && report.allocations > first_failure));
    if (fails) {
        count_failure();
        errno = ENOMEM;
    }
    return fails;
}

void *json_c_malloc(size_t size) { return json_c_fails() ? nullptr : std::malloc(size); }
void *json_c_calloc(size_t count, size_t size) {
    return json_c_fails() ? nullptr : std::calloc(count, size);
}
void *json_c_realloc(void *old, size_t size) {
    return json_c_fails() ? nullptr : std::realloc(old, size);
}
char *json_c_strdup(const char *text) { return json_c_fails() ? nullptr : strdup(text); }

struct Replacement {
    const char *name;
    void *function;
};

const Replacement replacements[] = {
    {"malloc",  reinterpret_cast<void *>(json_c_malloc) },
    {"calloc",  reinterpret_cast<void *>(json_c_calloc) },
    {"realloc", reinterpret_cast<void *>(json_c_realloc)},
    {"strdup",  reinterpret_cast<void *>(json_c_strdup) },
};

// Writes into a library's import table, which the loader made read-only.
bool replace(void **entry, void *function) {
    constexpr std::uintptr_t page = 4096;
    auto *start = reinterpret_cast<void *>(reinterpret_cast<std::uintptr_t>(entry) & ~(page - 1));
    if (mprotect(start, page, PROT_READ | PROT_WRITE) != 0) return false;
    *entry = function;
    return true;
}

#ifdef __mips__
constexpr bool relocated = false;  // the loader does not relocate the dynamic section
#else
constexpr bool relocated = true;
#endif

size_t dynamic_value(const link_map *library, decltype(ElfW(Dyn)::d_tag) tag) {
    for (const ElfW(Dyn) *entry = library->l_ld; entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == tag) return entry->d_un.d_val;
    }
    return 0;
}

template <typename Target>
Target *dynamic_pointer(const link_map *library, decltype(ElfW(Dyn)::d_tag) tag) {
    const size_t address = dynamic_value(library, tag);
    if (address == 0) return nullptr;
    return reinterpret_cast<Target *>(relocated ? address : library->l_addr + address);
}

// Writes the replacement of an imported symbol into its slot; returns how many slots it wrote.
int replace_import(const link_map *library, size_t symbol, void **slot) {
    const auto *symbols = dynamic_pointer<const ElfW(Sym)>(library, DT_SYMTAB);
    const char *name = dynamic_pointer<const char>(library, DT_STRTAB) + symbols[symbol].st_name;
    for (const Replacement &replacement : replacements) {
        if (std::strcmp(name, replacement.name) == 0) return replace(slot, replacement.function);
    }
    return 0;
}

#ifdef __mips__
// On MIPS the global offset table has one slot per imported symbol, in symbol order.
int replace_imports(const link_map *library) {
    auto **slots =
        dynamic_pointer<void *>(library, DT_PLTGOT) + dynamic_value(library, DT_MIPS_LOCAL_GOTNO);
    const size_t first = dynamic_value(library, DT_MIPS_GOTSYM);
    int replaced = 0;
    for (size_t symbol = first; symbol < dynamic_value(library, DT_MIPS_SYMTABNO); ++symbol) {
        replaced += replace_import(library, symbol, slots + (symbol - first));
    }
    return replaced;
}
#else
int replace_imports(const link_map *library) {
    int replaced = 0;
    const auto replace_all = [&](const ElfW(Rela) *table, size_t bytes) {
        for (const ElfW(Rela) *row = table; row < table + bytes / sizeof *row; ++row) {
            auto **slot = reinterpret_cast<void **>(library->l_addr + row->r_offset);
            replaced += replace_import(library, ELF64_R_SYM(row->r_info), slot);
        }
    };
    replace_all(dynamic_pointer<const ElfW(Rela)>(library, DT_JMPREL),
                dynamic_value(library, DT_PLTRELSZ));
    replace_all(dynamic_pointer<const ElfW(Rela)>(library, DT_RELA),
                dynamic_value(library, DT_RELASZ));
    return replaced;
}
#endif

const link_map *find_json_c() {
    // The simulator exports json_object_to_json_string, too.
    void *function = dlsym(RTLD_DEFAULT, "json_object_new_object");
    Dl_info info;
    link_map *library = nullptr;
    if (function == nullptr ||
        dladdr1(function, &info, reinterpret_cast<void **>(&library), RTLD_DL_LINKMAP) == 0) {
        return nullptr;
    }
    return library;
}

// ------------------------------------------------------------------ exempt functions

// The call of an exempt function counts as one allocation.
bool may_call() {
    if (!enabled) return true;
    void *block = PyObject_Malloc(1);
    if (block == nullptr) {
        PyErr_NoMemory();
        return false;
    }
    PyObject_Free(block);
    return true;
}

// Calls `callable`, the `self` of the wrapper.
PyObject *exempt_call(PyObject *callable, PyObject *const *arguments, Py_ssize_t count,
                      PyObject *names) {
    if (!may_call()) return nullptr;
    const SuspendInjection suspend;
    return PyObject_Vectorcall(callable, arguments, static_cast<size_t>(count), names);
}

PyMethodDef exempt_definition = {
    "exempt",
    reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(exempt_call)),
    METH_FASTCALL | METH_KEYWORDS,
    nullptr,
};

newfunc original_new = nullptr;
PyObject *(*original_release)(PyObject *) = nullptr;
void (*original_callback)(const char *, const char *) = nullptr;

PyObject *exempt_new(PyTypeObject *type, PyObject *arguments, PyObject *keywords) {
    if (!may_call()) return nullptr;
    const SuspendInjection suspend;
    return original_new(type, arguments, keywords);
}

PyObject *exempt_release(PyObject *self) {
    if (!may_call()) return nullptr;
    const SuspendInjection suspend;
    return original_release(self);
}

void exempt_callback(const char *first, const char *second) {
    const SuspendInjection suspend;
    original_callback(first, second);
}

}  // namespace

bool has_failure() { return under_test && report.failures > 0; }

}  // namespace faults

using namespace faults;

PyObject *faults_install(PyObject *function) {
    Py_INCREF(function);
    Py_XSETREF(set_nomemory, function);
    for (int i = 0; i < domain_count; ++i) PyMem_GetAllocator(domains[i], &original[i]);
    if (!arm_interpreter(0, false)) return nullptr;
    // Nothing may allocate between set_nomemory's hooks and ours.
    for (int i = 0; i < domain_count; ++i) {
        PyMem_GetAllocator(domains[i], &failing[i]);
        PyMemAllocatorEx hooks = {&original[i], hook_malloc, hook_calloc, hook_realloc, hook_free};
        PyMem_SetAllocator(domains[i], &hooks);
    }
    Py_RETURN_NONE;
}

int faults_hook_json_c() {
    const link_map *library = find_json_c();
    return library != nullptr && replace_imports(library) >= 2;  // at least malloc and realloc
}

PyObject *faults_call(PyObject *callable, PyObject *arguments, PyObject *keywords, int of, int nth,
                      int persistent) {
    allocator = of;
    first_failure = nth;
    is_persistent = persistent != 0;
    report = {};
    if (of == FAULTS_INTERPRETER && !arm_interpreter(nth, is_persistent)) return nullptr;
    PyGC_Collect();  // also clears the free lists, which would serve requests
    under_test = enabled = true;
    PyObject *result = PyObject_Call(callable, arguments, keywords == Py_None ? nullptr : keywords);
    under_test = enabled = false;
    return result;
}

void faults_get_report(faults_report *out) { *out = report; }

void faults_trace_into(const void **rows, long size) {
    trace = rows;
    trace_size = size;
}

long faults_live_blocks() { return live_blocks; }

PyObject *faults_exempt(PyObject *callable) {
    return PyCFunction_New(&exempt_definition, callable);
}

void faults_exempt_type(PyObject *type) {
    auto *exempted = reinterpret_cast<PyTypeObject *>(type);
    if (original_new == nullptr) original_new = std::exchange(exempted->tp_new, exempt_new);
}

void faults_exempt_vtable(PyObject *capsule) {
    auto *vtable = static_cast<PyObject *(**)(PyObject *)>(PyCapsule_GetPointer(capsule, nullptr));
    if (original_release == nullptr) original_release = std::exchange(*vtable, exempt_release);
}

void *faults_exempt_callback(void *callback) {
    original_callback = reinterpret_cast<void (*)(const char *, const char *)>(callback);
    return reinterpret_cast<void *>(exempt_callback);
}
