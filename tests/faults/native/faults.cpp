// Memory that fails on purpose. The interpreter's own `set_nomemory` fails the allocations; it can
// not be told to look away for a while, so a gate stands before it: closed, requests pass it by.
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

#include "record.h"

namespace faults {
namespace {

constexpr PyMemAllocatorDomain domains[] = {PYMEM_DOMAIN_RAW, PYMEM_DOMAIN_MEM, PYMEM_DOMAIN_OBJ};
constexpr int domain_count = 3;

PyMemAllocatorEx real[domain_count];
PyMemAllocatorEx failing[domain_count];  // set_nomemory's
PyObject *set_nomemory = nullptr;        // owned
long live = 0;                           // blocks made minus blocks freed

// The trial. While it is over the gate is closed.
bool gate_open = false;
int allocator = FAULTS_INTERPRETER;
int first_failing = 0;  // 0: none
bool all_from_there = false;
bool on_trial = false;
const void **trace = nullptr;
long trace_size = 0;
faults_report report;

// What belongs to somebody else runs with the gate closed.
class Shelter {
public:
    Shelter() : was_open_(gate_open) { gate_open = false; }
    ~Shelter() { gate_open = was_open_; }
    Shelter(const Shelter &) = delete;
    Shelter &operator=(const Shelter &) = delete;

private:
    bool was_open_;
};

void note_failure() {
    ++report.failed;
    const char *site = note_fired();
    if (report.failed == 1) report.site = site;
}

// ------------------------------------------------------------------ the interpreter's allocators

bool counts(int of) { return gate_open && allocator == of; }

PyMemAllocatorEx &chosen(PyMemAllocatorEx *domain) {
    if (!counts(FAULTS_INTERPRETER)) return *domain;
    if (report.counted < trace_size) trace[report.counted] = row_under_way();
    ++report.counted;
    return failing[domain - real];
}

// A request of one domain may go on to another, as large ones do: a block counts once.
int nested = 0;

class Request {
public:
    Request() { ++nested; }
    ~Request() { --nested; }
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    void made(const void *block) const { live += block != nullptr && nested == 1; }
    void freed(const void *block) const { live -= block != nullptr && nested == 1; }
};

void *noted(void *block) {
    if (block == nullptr && gate_open) note_failure();
    return block;
}

void *gate_malloc(void *domain, size_t size) {
    const Request request;
    PyMemAllocatorEx &below = chosen(static_cast<PyMemAllocatorEx *>(domain));
    void *block = noted(below.malloc(below.ctx, size));
    request.made(block);
    return block;
}

void *gate_calloc(void *domain, size_t count, size_t size) {
    const Request request;
    PyMemAllocatorEx &below = chosen(static_cast<PyMemAllocatorEx *>(domain));
    void *block = noted(below.calloc(below.ctx, count, size));
    request.made(block);
    return block;
}

void *gate_realloc(void *domain, void *old, size_t size) {
    const Request request;
    PyMemAllocatorEx &below = chosen(static_cast<PyMemAllocatorEx *>(domain));
    void *block = noted(below.realloc(below.ctx, old, size));
    if (old == nullptr) request.made(block);
    return block;
}

void gate_free(void *domain, void *block) {
    const Request request;
    auto *below = static_cast<PyMemAllocatorEx *>(domain);
    request.freed(block);
    below->free(below->ctx, block);
}

// set_nomemory(start, stop): what comes after `start` fails, up to `stop` or without end.
bool arm_interpreter(int nth, bool lasting) {
    const int start = nth > 0 ? nth - 1 : INT_MAX;
    PyObject *done =
        PyObject_CallFunction(set_nomemory, "ii", start, lasting ? 0 : start + (nth > 0));
    Py_XDECREF(done);
    return done != nullptr;
}

bool arm(int of, int nth, bool lasting) {
    allocator = of;
    first_failing = nth;
    all_from_there = lasting;
    report = {};
    if (of == FAULTS_INTERPRETER && !arm_interpreter(nth, lasting)) return false;
    PyGC_Collect();  // also empties the free lists, from which allocations would be met
    return true;
}

// ------------------------------------------------------------------ json-c's allocators

bool json_c_fails() {
    if (!counts(FAULTS_JSON_C)) return false;
    ++report.counted;
    const bool fails = first_failing > 0 && (report.counted == first_failing ||
                                             (all_from_there && report.counted > first_failing));
    if (fails) {
        note_failure();
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

// Writes into a library's table of imported functions, which is read-only once it is loaded.
bool replace(void **entry, void *function) {
    constexpr std::uintptr_t page = 4096;
    auto *start = reinterpret_cast<void *>(reinterpret_cast<std::uintptr_t>(entry) & ~(page - 1));
    if (mprotect(start, page, PROT_READ | PROT_WRITE) != 0) return false;
    *entry = function;
    return true;
}

#ifdef __mips__
constexpr bool relocated = false;  // the loader leaves the addresses in a dynamic section as linked
#else
constexpr bool relocated = true;
#endif

size_t value_of(const link_map *library, decltype(ElfW(Dyn)::d_tag) tag) {
    for (const ElfW(Dyn) *entry = library->l_ld; entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == tag) return entry->d_un.d_val;
    }
    return 0;
}

template <typename Wanted>
Wanted *entry_of(const link_map *library, decltype(ElfW(Dyn)::d_tag) tag) {
    const size_t address = value_of(library, tag);
    if (address == 0) return nullptr;
    return reinterpret_cast<Wanted *>(relocated ? address : library->l_addr + address);
}

// Replaces what a slot holds if the symbol is one of the replaced; 1 if it was, 0 if not.
int replace_import(const link_map *library, size_t symbol, void **slot) {
    const auto *symbols = entry_of<const ElfW(Sym)>(library, DT_SYMTAB);
    const char *name = entry_of<const char>(library, DT_STRTAB) + symbols[symbol].st_name;
    for (const Replacement &by : replacements) {
        if (std::strcmp(name, by.name) == 0) return replace(slot, by.function) ? 1 : 0;
    }
    return 0;
}

#ifdef __mips__
// Here the global offset table has one slot for each imported symbol, in the symbols' order.
int replace_imports(const link_map *library) {
    auto **slots = entry_of<void *>(library, DT_PLTGOT) + value_of(library, DT_MIPS_LOCAL_GOTNO);
    const size_t first = value_of(library, DT_MIPS_GOTSYM);
    int replaced = 0;
    for (size_t symbol = first; symbol < value_of(library, DT_MIPS_SYMTABNO); ++symbol) {
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
    replace_all(entry_of<const ElfW(Rela)>(library, DT_JMPREL), value_of(library, DT_PLTRELSZ));
    replace_all(entry_of<const ElfW(Rela)>(library, DT_RELA), value_of(library, DT_RELASZ));
    return replaced;
}
#endif

const link_map *json_c() {
    void *function = dlsym(RTLD_DEFAULT, "json_object_to_json_string_ext");
    Dl_info info;
    link_map *library = nullptr;
    if (function == nullptr ||
        dladdr1(function, &info, reinterpret_cast<void **>(&library), RTLD_DL_LINKMAP) == 0) {
        return nullptr;
    }
    return library;
}

// ------------------------------------------------------------------ shelters

// A call of somebody else's code is one allocation.
bool call_is_allowed() {
    if (!gate_open) return true;
    void *block = PyObject_Malloc(1);
    if (block == nullptr) {
        PyErr_NoMemory();
        return false;
    }
    PyObject_Free(block);
    return true;
}

struct Sheltered {
    PyObject_HEAD vectorcallfunc call;
    PyObject *callable;  // owned
};

PyObject *sheltered_call(PyObject *self, PyObject *const *arguments, size_t count,
                         PyObject *names) {
    if (!call_is_allowed()) return nullptr;
    const Shelter shelter;
    return PyObject_Vectorcall(reinterpret_cast<Sheltered *>(self)->callable, arguments, count,
                               names);
}

void sheltered_dealloc(PyObject *self) {
    Py_DECREF(reinterpret_cast<Sheltered *>(self)->callable);
    PyObject_Free(self);
}

PyTypeObject sheltered_type = [] {
    PyTypeObject type{};
    type.ob_base.ob_base.ob_refcnt = 1;
    type.tp_name = "Sheltered";
    type.tp_basicsize = sizeof(Sheltered);
    type.tp_dealloc = sheltered_dealloc;
    type.tp_vectorcall_offset = offsetof(Sheltered, call);
    type.tp_call = PyVectorcall_Call;
    type.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_VECTORCALL;
    return type;
}();

newfunc made_by = nullptr;
PyObject *(*released_by)(PyObject *) = nullptr;
void (*callback)(const char *, const char *) = nullptr;

PyObject *sheltered_new(PyTypeObject *type, PyObject *arguments, PyObject *keywords) {
    if (!call_is_allowed()) return nullptr;
    const Shelter shelter;
    return made_by(type, arguments, keywords);
}

PyObject *sheltered_release(PyObject *self) {
    if (!call_is_allowed()) return nullptr;
    const Shelter shelter;
    return released_by(self);
}

void sheltered_callback(const char *first, const char *second) {
    const Shelter shelter;
    callback(first, second);
}

}  // namespace

bool memory_has_failed() { return on_trial && report.failed > 0; }

}  // namespace faults

using namespace faults;

PyObject *faults_install(PyObject *function) {
    Py_INCREF(function);
    Py_XSETREF(set_nomemory, function);
    for (int i = 0; i < domain_count; ++i) PyMem_GetAllocator(domains[i], &real[i]);
    // From here to the gate nothing may be allocated.
    if (!arm_interpreter(0, false)) return nullptr;
    for (int i = 0; i < domain_count; ++i) {
        PyMem_GetAllocator(domains[i], &failing[i]);
        PyMemAllocatorEx gate = {&real[i], gate_malloc, gate_calloc, gate_realloc, gate_free};
        PyMem_SetAllocator(domains[i], &gate);
    }
    Py_RETURN_NONE;
}

int faults_follow_json_c() {
    const link_map *library = json_c();
    if (library == nullptr) return 0;
    const int replaced = replace_imports(library);
    return replaced >= 2;  // malloc and realloc, however the library was linked
}

PyObject *faults_trial(PyObject *callable, PyObject *arguments, PyObject *keywords, int of, int nth,
                       int lasting) {
    if (!arm(of, nth, lasting != 0)) return nullptr;
    on_trial = gate_open = true;
    PyObject *result = PyObject_Call(callable, arguments, keywords == Py_None ? nullptr : keywords);
    on_trial = gate_open = false;
    return result;
}

void faults_report_of(faults_report *out) { *out = report; }

void faults_trace_into(const void **rows, long size) {
    trace = rows;
    trace_size = size;
}

long faults_live() { return live; }

PyObject *faults_sheltered(PyObject *callable) {
    if (PyType_Ready(&sheltered_type) < 0) return nullptr;
    auto *made = PyObject_New(Sheltered, &sheltered_type);
    if (made == nullptr) return nullptr;
    made->call = sheltered_call;
    Py_INCREF(callable);
    made->callable = callable;
    return reinterpret_cast<PyObject *>(made);
}

void faults_shelter_type(PyObject *type) {
    auto *sheltered = reinterpret_cast<PyTypeObject *>(type);
    if (made_by == nullptr) made_by = std::exchange(sheltered->tp_new, sheltered_new);
}

void faults_shelter_method_table(PyObject *capsule) {
    auto *table = static_cast<PyObject *(**)(PyObject *)>(PyCapsule_GetPointer(capsule, nullptr));
    if (released_by == nullptr) released_by = std::exchange(*table, sheltered_release);
}

void *faults_shelter_callback(void *original) {
    callback = reinterpret_cast<void (*)(const char *, const char *)>(original);
    return reinterpret_cast<void *>(sheltered_callback);
}
