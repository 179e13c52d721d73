// Allocation and live counts of what the library hands out. json-c objects report their end through
// the deletion hook of their user data; text buffers are recognised by address in a wrapper around
// the interpreter's PyMem allocator, which is in place only while an appliance is open and
// counting.
#include "allocations.h"

#include <Python.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <unordered_set>

namespace simulator {
namespace {

constexpr int kDepth = 1000;  // nesting that a reply may have

// What was handed out before the last opening still comes back, but counts no more: each object
// carries the generation it belongs to. Generation 0 is never current.
std::uintptr_t generation = 0;
long live_objects = 0;

void object_freed(std::uintptr_t born) {
    if (born == generation) {
        --live_objects;
    }
}

void counted_object_freed(json_object *, void *born) {
    object_freed(reinterpret_cast<std::uintptr_t>(born));
}

// An object that renders as a given text, whatever it is.
struct Verbatim {
    std::string text;
    std::uintptr_t born;
};

int render_verbatim(json_object *object, printbuf *out, int, int) {
    const auto *verbatim = static_cast<Verbatim *>(json_object_get_userdata(object));
    return printbuf_memappend(out, verbatim->text.data(), static_cast<int>(verbatim->text.size()));
}

void verbatim_freed(json_object *, void *userdata) {
    auto *verbatim = static_cast<Verbatim *>(userdata);
    object_freed(verbatim->born);
    delete verbatim;
}

json_object *new_verbatim(std::string_view text, Counted counted) {
    json_object *root = json_object_new_object();
    if (root == nullptr) {
        return nullptr;
    }
    std::uintptr_t born = 0;
    if (counted == Counted::yes) {
        born = generation;
        ++live_objects;
    }
    json_object_set_serializer(root, render_verbatim, new Verbatim{std::string(text), born},
                               verbatim_freed);
    return root;
}

// The text is NUL-terminated, and the NUL is parsed too: it ends a number at the root.
json_object *parse(std::string_view text, const char **reason) {
    json_tokener *tokener = json_tokener_new_ex(kDepth);
    if (tokener == nullptr) {
        *reason = "no memory for the JSON parser";
        return nullptr;
    }
    json_object *root =
        json_tokener_parse_ex(tokener, text.data(), static_cast<int>(text.size() + 1));
    if (json_tokener_get_error(tokener) != json_tokener_success) {
        *reason = "json-c cannot parse the text";
    }
    json_tokener_free(tokener);
    return root;
}

std::unordered_set<void *> handed_out;
PyMemAllocatorEx below;
bool following = false;  // buffers handed out now are followed
bool wrapped = false;    // our wrapper is somewhere in the chain of PyMem allocators
char *spare = nullptr;   // an empty text for new_text_never_null

void *wrapper_malloc(void *, size_t size) { return below.malloc(below.ctx, size); }

void *wrapper_calloc(void *, size_t count, size_t size) {
    return below.calloc(below.ctx, count, size);
}

void *wrapper_realloc(void *, void *buffer, size_t size) {
    const bool ours = handed_out.count(buffer) != 0;
    void *moved = below.realloc(below.ctx, buffer, size);
    if (ours && moved != nullptr) {
        handed_out.erase(buffer);
        handed_out.insert(moved);
    }
    return moved;
}

void wrapper_free(void *, void *buffer) {
    if (!handed_out.empty()) {
        handed_out.erase(buffer);
    }
    below.free(below.ctx, buffer);
}

void wrap_allocator() {
    if (wrapped) {
        return;
    }
    PyMem_GetAllocator(PYMEM_DOMAIN_MEM, &below);
    PyMemAllocatorEx wrapper = {nullptr, wrapper_malloc, wrapper_calloc, wrapper_realloc,
                                wrapper_free};
    PyMem_SetAllocator(PYMEM_DOMAIN_MEM, &wrapper);
    wrapped = true;
}

// Someone may have wrapped us in turn (tracemalloc does); then the wrapper stays and passes on.
void unwrap_allocator() {
    PyMemAllocatorEx now;
    PyMem_GetAllocator(PYMEM_DOMAIN_MEM, &now);
    if (wrapped && now.free == wrapper_free) {
        PyMem_SetAllocator(PYMEM_DOMAIN_MEM, &below);
        wrapped = false;
    }
}

char *hand_out(char *text) {
    if (following) {
        handed_out.insert(text);
    }
    return text;
}

bool set_spare_aside() {
    if (spare == nullptr) {
        spare = static_cast<char *>(PyMem_Malloc(1));
    }
    return spare != nullptr;
}

}  // namespace

bool open_handout(bool counting) {
    ++generation;
    live_objects = 0;
    handed_out.clear();
    if (!set_spare_aside()) {
        return false;
    }
    following = counting;
    if (following) {
        wrap_allocator();
    }
    return true;
}

void close_handout() {
    following = false;
    handed_out.clear();
    unwrap_allocator();
}

simulator_counts counts() { return {live_objects, static_cast<long>(handed_out.size())}; }

json_object *new_object(const simulator_reply &reply, Counted counted, const char **reason) {
    *reason = nullptr;
    if (reply.kind == APPLIANCE_REPLY_NULL) {
        return nullptr;
    }
    // json-c wants the NUL behind the text, and sizes as int.
    if (reply.text == nullptr || reply.length >= INT_MAX) {
        *reason = "no text of a size that json-c takes";
        return nullptr;
    }
    const std::string text(reply.text, reply.length);
    if (reply.kind == APPLIANCE_REPLY_TEXT) {
        json_object *root = parse(text, reason);
        // A number parsed keeps its spelling in its user data, where our hook would replace it.
        if (root == nullptr || !json_object_is_type(root, json_type_double)) {
            if (root != nullptr && counted == Counted::yes) {
                watch(root);
            }
            return root;
        }
        json_object_put(root);
    }
    json_object *root = new_verbatim(text, counted);
    if (root == nullptr) {
        *reason = "no memory for a json-c object";
    }
    return root;
}

char *new_text(std::string_view text) {
    auto *buffer = static_cast<char *>(PyMem_Malloc(text.size() + 1));
    if (buffer == nullptr) {
        return nullptr;
    }
    std::memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
    return hand_out(buffer);
}

char *new_text_never_null(std::string_view text) {
    set_spare_aside();
    if (char *buffer = new_text(text); buffer != nullptr) {
        return buffer;
    }
    char *buffer = spare;
    spare = nullptr;
    if (buffer == nullptr) {
        Py_FatalError("the stand-in appliance has no memory for a text that must not be null");
    }
    buffer[0] = '\0';
    return hand_out(buffer);
}

void watch(json_object *root) {
    ++live_objects;
    json_object_set_userdata(root, reinterpret_cast<void *>(generation), counted_object_freed);
}

}  // namespace simulator
