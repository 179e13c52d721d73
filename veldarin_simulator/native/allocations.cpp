// json-c reports the end of an object through the deletion hook of its user data. A wrapper around
// the interpreter's PyMem allocator recognizes text buffers by address; it is installed only while
// an open simulator tracks buffers.
#include "allocations.h"

#include <Python.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <unordered_set>

namespace simulator {
namespace {

constexpr int kMaxDepth = 1000;  // nesting of a reply

// An object carries the generation in which it was created, because objects of an earlier simulator
// are still freed but no longer counted. Generation 0 is never current.
std::uintptr_t generation = 0;
long live_objects = 0;

void object_freed(std::uintptr_t object_generation) {
    if (object_generation == generation) {
        --live_objects;
    }
}

void tracked_object_freed(json_object *, void *object_generation) {
    object_freed(reinterpret_cast<std::uintptr_t>(object_generation));
}

// The user data of an object that renders as a given text.
struct Verbatim {
    std::string text;
    std::uintptr_t object_generation;
};

int render_verbatim(json_object *object, printbuf *out, int, int) {
    const auto *verbatim = static_cast<Verbatim *>(json_object_get_userdata(object));
    return printbuf_memappend(out, verbatim->text.data(), static_cast<int>(verbatim->text.size()));
}

void verbatim_freed(json_object *, void *userdata) {
    auto *verbatim = static_cast<Verbatim *>(userdata);
    object_freed(verbatim->object_generation);
    delete verbatim;
}

json_object *new_verbatim(std::string_view text, Tracked tracked) {
    json_object *root = json_object_new_object();
    if (root == nullptr) {
        return nullptr;
    }
    std::uintptr_t object_generation = 0;
    if (tracked == Tracked::yes) {
        object_generation = generation;
        ++live_objects;
    }
    json_object_set_serializer(root, render_verbatim,
                               new Verbatim{std::string(text), object_generation}, verbatim_freed);
    return root;
}

// Parses the NUL after the text too: it ends a number at the root.
json_object *parse(const std::string &text, const char **reason) {
    json_tokener *tokener = json_tokener_new_ex(kMaxDepth);
    if (tokener == nullptr) {
        *reason = "no memory for the JSON parser";
        return nullptr;
    }
    json_object *root =
        json_tokener_parse_ex(tokener, text.c_str(), static_cast<int>(text.size() + 1));
    if (json_tokener_get_error(tokener) != json_tokener_success) {
        *reason = "json-c cannot parse the text";
    }
    json_tokener_free(tokener);
    return root;
}

std::unordered_set<void *> tracked_buffers;
PyMemAllocatorEx underlying;
bool tracking = false;    // new buffers are tracked
bool wrapped = false;     // the wrapper is somewhere in the chain of PyMem allocators
char *reserve = nullptr;  // an empty text for new_text_never_null

void *wrapper_malloc(void *, size_t size) { return underlying.malloc(underlying.ctx, size); }

void *wrapper_calloc(void *, size_t count, size_t size) {
    return underlying.calloc(underlying.ctx, count, size);
}

void *wrapper_realloc(void *, void *buffer, size_t size) {
    const bool is_tracked = tracked_buffers.count(buffer) != 0;
    void *moved = underlying.realloc(underlying.ctx, buffer, size);
    if (is_tracked && moved != nullptr) {
        tracked_buffers.erase(buffer);
        tracked_buffers.insert(moved);
    }
    return moved;
}

void wrapper_free(void *, void *buffer) {
    if (!tracked_buffers.empty()) {
        tracked_buffers.erase(buffer);
    }
    underlying.free(underlying.ctx, buffer);
}

void wrap_allocator() {
    if (wrapped) {
        return;
    }
    PyMem_GetAllocator(PYMEM_DOMAIN_MEM, &underlying);
    PyMemAllocatorEx wrapper = {nullptr, wrapper_malloc, wrapper_calloc, wrapper_realloc,
                                wrapper_free};
    PyMem_SetAllocator(PYMEM_DOMAIN_MEM, &wrapper);
    wrapped = true;
}

// Another wrapper may be on top (tracemalloc's); ours then stays and passes calls on.
void unwrap_allocator() {
    PyMemAllocatorEx current;
    PyMem_GetAllocator(PYMEM_DOMAIN_MEM, &current);
    if (wrapped && current.free == wrapper_free) {
        PyMem_SetAllocator(PYMEM_DOMAIN_MEM, &underlying);
        wrapped = false;
    }
}

char *track(char *text) {
    if (tracking) {
        tracked_buffers.insert(text);
    }
    return text;
}

bool fill_reserve() {
    if (reserve == nullptr) {
        reserve = static_cast<char *>(PyMem_Malloc(1));
    }
    return reserve != nullptr;
}

}  // namespace

bool start_tracking(bool track_buffers) {
    ++generation;
    live_objects = 0;
    tracked_buffers.clear();
    if (!fill_reserve()) {
        return false;
    }
    tracking = track_buffers;
    if (tracking) {
        wrap_allocator();
    }
    return true;
}

void stop_tracking() {
    tracking = false;
    tracked_buffers.clear();
    unwrap_allocator();
}

simulator_live_counts live_counts() {
    return {live_objects, static_cast<long>(tracked_buffers.size())};
}

json_object *new_object(const simulator_reply &reply, Tracked tracked, const char **reason) {
    *reason = nullptr;
    if (reply.kind == SIMULATOR_REPLY_NULL) {
        return nullptr;
    }
    // json-c needs a NUL after the text, and has sizes of type int.
    if (reply.text == nullptr || reply.length >= INT_MAX) {
        *reason = "the text is missing or too large for json-c";
        return nullptr;
    }
    const std::string text(reply.text, reply.length);
    if (reply.kind == SIMULATOR_REPLY_TEXT) {
        json_object *root = parse(text, reason);
        // json-c keeps a number's spelling in the user data, which our hook would replace.
        if (root == nullptr || !json_object_is_type(root, json_type_double)) {
            if (root != nullptr && tracked == Tracked::yes) {
                track_object(root);
            }
            return root;
        }
        json_object_put(root);
    }
    json_object *root = new_verbatim(text, tracked);
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
    return track(buffer);
}

char *new_text_never_null(std::string_view text) {
    fill_reserve();
    if (char *buffer = new_text(text); buffer != nullptr) {
        return buffer;
    }
    char *buffer = reserve;
    reserve = nullptr;
    if (buffer == nullptr) {
        Py_FatalError("the simulator has no memory for a text that must not be null");
    }
    buffer[0] = '\0';
    return track(buffer);
}

void track_object(json_object *root) {
    ++live_objects;
    json_object_set_userdata(root, reinterpret_cast<void *>(generation), tracked_object_freed);
}

}  // namespace simulator
