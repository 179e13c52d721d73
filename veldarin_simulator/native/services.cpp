// The native services, each exported under its own name with its exact signature. A service returns
// its fixed reply without entering Python, or logs the call and runs the callback.
#include "services.h"

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "allocations.h"
#include "call_log.h"

namespace simulator {
namespace {

struct StoredReply {
    json_object *object = nullptr;  // owned
    bool is_text = false;           // otherwise a null pointer
    std::string text;
    unsigned long number = 0;
};

struct ServiceSlot {
    bool is_fixed = false;
    StoredReply reply;
    unsigned long calls = 0;
    std::chrono::microseconds delay{};
};

// A call whose callback runs. Each thread has its own, because another thread may take the
// interpreter lock meanwhile; `outer` is set if a callback calls services itself.
struct PendingCall {
    Service service;
    std::size_t capacity = 0;  // of the caller's buffer, for a reply in place
    PendingCall *outer = nullptr;
    bool has_reply = false;
    int source = 0;
    StoredReply reply{};
};

ServiceSlot slots[kServices];
std::size_t fixed_services = 0;
unsigned long oversized = 0;
simulator_callback callback = nullptr;
thread_local PendingCall *pending = nullptr;

// One object for each text, never freed: instances of JSONObject borrow them.
std::vector<json_object *> interned_defaults;
json_object *default_response = nullptr;

bool records_serializer = false;

struct GILProbe {
    const unsigned long *counter = nullptr;
    std::chrono::milliseconds wait{};
    unsigned long calls = 0;
    unsigned long released = 0;
};
GILProbe gil_probe;

void wait_for_threads() {
    using clock = std::chrono::steady_clock;
    const auto read = [] { return __atomic_load_n(gil_probe.counter, __ATOMIC_RELAXED); };
    const unsigned long before = read();
    const auto end = clock::now() + gil_probe.wait;
    ++gil_probe.calls;
    do {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (read() != before) {
            ++gil_probe.released;
            return;
        }
    } while (clock::now() < end);
}

void probe_gil() {
    if (gil_probe.counter != nullptr) {
        wait_for_threads();
    }
}

// Returns the slot of a service that is called.
ServiceSlot &slot_of_call(Service service) {
    probe_gil();
    ServiceSlot &slot = slots[static_cast<std::size_t>(service)];
    if (slot.delay.count() != 0) {
        std::this_thread::sleep_for(slot.delay);  // continues after a signal
    }
    return slot;
}

// Copies a reply in the form of the service. Returns null, or the reason why it cannot.
const char *store(simulator_form form, const simulator_reply &reply, Tracked tracked,
                  StoredReply *stored) {
    const char *reason = nullptr;
    switch (form) {
        case SIMULATOR_FORM_JSON:
            stored->object = new_object(reply, tracked, &reason);
            return reason;
        case SIMULATOR_FORM_TEXT:
        case SIMULATOR_FORM_WRAPPED:
        case SIMULATOR_FORM_IN_PLACE:
            if (reply.kind == SIMULATOR_REPLY_NULL && form != SIMULATOR_FORM_WRAPPED) {
                return nullptr;
            }
            if (reply.kind != SIMULATOR_REPLY_TEXT || reply.text == nullptr) {
                return "the service returns text";
            }
            stored->is_text = true;
            stored->text.assign(reply.text, reply.length);
            if (form == SIMULATOR_FORM_IN_PLACE) {
                stored->text.resize(std::strlen(stored->text.c_str()));  // compared to the capacity
            }
            return nullptr;
        case SIMULATOR_FORM_COUNT:
        case SIMULATOR_FORM_STATUS:
            if (reply.kind != SIMULATOR_REPLY_NUMBER) {
                return "the service returns a number";
            }
            stored->number = reply.number;
            return nullptr;
    }
    return "unknown form";
}

void clear_fixed_reply(ServiceSlot &slot) {
    if (slot.is_fixed) {
        json_object_put(slot.reply.object);
        slot = {false, {}, 0, slot.delay};
        --fixed_services;
    }
}

// Returns the object, or the interned one of the same text in its place.
json_object *intern_default(json_object *object) {
    const std::string text = to_json(object);
    for (json_object *known : interned_defaults) {
        if (text == to_json(known)) {
            json_object_put(object);
            return known;
        }
    }
    interned_defaults.push_back(object);
    return object;
}

// Logs the call and runs the callback; if that sets no reply, the result is null, 0 or "".
StoredReply run_callback(PendingCall call, const LogEntry &entry) {
    const LogIndex index = log_call(entry);
    if (callback == nullptr) {
        return {};
    }
    const auto &input = entry.request ? entry.request : entry.text;
    call.outer = pending;
    pending = &call;
    callback(entry.service, input ? input->c_str() : nullptr);
    pending = call.outer;
    set_source(index, call.source);
    return std::move(call.reply);
}

json_object *reply_object(Service service, void *context, json_object *request, void *third) {
    ServiceSlot &slot = slot_of_call(service);
    if (slot.is_fixed) {
        ++slot.calls;
        return json_object_get(slot.reply.object);
    }
    return run_callback({service}, {row(service).name, context, third, to_json(request)}).object;
}

// Returns the slot's reply, or stores the callback's in `storage`.
const StoredReply &reply(Service service, void *context, const char *text, StoredReply &storage) {
    ServiceSlot &slot = slot_of_call(service);
    if (slot.is_fixed) {
        ++slot.calls;
        return slot.reply;
    }
    LogEntry entry{row(service).name, context};
    PendingCall call{service};
    if (text != nullptr) {
        entry.text = text;
        call.capacity = entry.text->size();
    }
    storage = run_callback(std::move(call), entry);
    return storage;
}

}  // namespace
}  // namespace simulator

using simulator::Service;
using simulator::StoredReply;

#define QUERY_FUNCTION(name)                                                                       \
    SIMULATOR_EXPORT json_object *name(void *context, json_object *request) {                      \
        return simulator::reply_object(Service::id_##name, context, request, nullptr);             \
    }
QUERY_SERVICES(QUERY_FUNCTION)

#define CAPTURE_FUNCTION(name)                                                                     \
    SIMULATOR_EXPORT json_object *name(void *context, json_object *request, void *third) {         \
        return simulator::reply_object(Service::id_##name, context, request, third);               \
    }
CAPTURE_SERVICES(CAPTURE_FUNCTION)

SIMULATOR_EXPORT char *get_cli_cmd_output(void *first, const char *command) {
    StoredReply storage;
    const auto &reply = simulator::reply(Service::id_get_cli_cmd_output, first, command, storage);
    return reply.is_text ? simulator::new_text(reply.text) : nullptr;
}

SIMULATOR_EXPORT unsigned long aps_get_new_cookie_id() {
    StoredReply storage;
    return simulator::reply(Service::id_aps_get_new_cookie_id, nullptr, nullptr, storage).number;
}

SIMULATOR_EXPORT unsigned long __get_aps_hash(const char *text) {
    StoredReply storage;
    return simulator::reply(Service::id___get_aps_hash, nullptr, text, storage).number;
}

SIMULATOR_EXPORT char *cookieval_wrap(const char *text) {
    StoredReply storage;
    const auto &reply = simulator::reply(Service::id_cookieval_wrap, nullptr, text, storage);
    return simulator::new_text_never_null(reply.text);
}

// Returns 0, or -1 if it leaves the buffer as it was.
SIMULATOR_EXPORT int cookieval_unwrap(char *buffer) {
    StoredReply storage;
    const auto &reply = simulator::reply(Service::id_cookieval_unwrap, nullptr, buffer, storage);
    if (!reply.is_text) {
        return -1;
    }
    if (reply.text.size() > std::strlen(buffer)) {
        ++simulator::oversized;
        return -1;
    }
    std::memcpy(buffer, reply.text.c_str(), reply.text.size() + 1);
    return 0;
}

SIMULATOR_EXPORT int gui_chk_cert_expiration(const char *path) {
    StoredReply storage;
    const auto &reply =
        simulator::reply(Service::id_gui_chk_cert_expiration, nullptr, path, storage);
    return static_cast<int>(reply.number);
}

// Interposes json-c's own function, which is this one call as well.
SIMULATOR_EXPORT const char *json_object_to_json_string(json_object *object) {
    simulator::probe_gil();
    if (simulator::records_serializer) {
        simulator::log_call({__func__, nullptr, nullptr, simulator::to_json(object)});
    }
    return json_object_to_json_string_ext(object, JSON_C_TO_STRING_SPACED);
}

int simulator_open(simulator_callback callback, int track_buffers) {
    simulator_close();
    simulator_clear_calls();
    simulator::oversized = 0;
    simulator::callback = callback;
    return simulator::start_tracking(track_buffers != 0) ? 1 : 0;
}

void simulator_close() {
    simulator::callback = nullptr;
    simulator::default_response = nullptr;
    simulator::records_serializer = false;
    simulator::gil_probe = {};
    for (auto &slot : simulator::slots) {
        simulator::clear_fixed_reply(slot);
        slot.delay = {};
    }
    simulator::stop_tracking();
}

const char *simulator_service(size_t index, int *form) {
    if (index >= simulator::kServices) {
        return nullptr;
    }
    *form = simulator::kRows[index].form;
    return simulator::kRows[index].name;
}

const char *simulator_set_reply(const simulator_reply *reply) {
    simulator::PendingCall *call = simulator::pending;
    if (call == nullptr || call->has_reply) {
        return "no call waits for a reply";
    }
    const simulator_form form = simulator::row(call->service).form;
    const char *reason = simulator::store(form, *reply, simulator::Tracked::yes, &call->reply);
    if (form == SIMULATOR_FORM_IN_PLACE && call->reply.text.size() > call->capacity) {
        call->reply = {};
        reason = "the text is longer than the one in the caller's buffer";
    }
    if (reason == nullptr) {
        call->has_reply = true;
        call->source = reply->source;
    }
    return reason;
}

const char *simulator_set_fixed_reply(size_t service, const simulator_reply *reply) {
    if (service >= simulator::kServices) {
        return "no such service";
    }
    simulator::ServiceSlot &slot = simulator::slots[service];
    simulator::clear_fixed_reply(slot);
    const simulator_form form = simulator::kRows[service].form;
    const char *reason = simulator::store(form, *reply, simulator::Tracked::no, &slot.reply);
    if (reason == nullptr) {
        slot.is_fixed = true;
        ++simulator::fixed_services;
    }
    return reason;
}

void simulator_clear_fixed_reply(size_t service) {
    if (service < simulator::kServices) {
        simulator::clear_fixed_reply(simulator::slots[service]);
    }
}

unsigned long simulator_fixed_reply_calls(size_t service) {
    return service < simulator::kServices ? simulator::slots[service].calls : 0;
}

void simulator_set_delay(size_t service, unsigned long long microseconds) {
    if (service < simulator::kServices) {
        simulator::slots[service].delay = std::chrono::microseconds(microseconds);
    }
}

unsigned long simulator_oversized_replies() { return std::exchange(simulator::oversized, 0); }

void simulator_live_objects(simulator_live_counts *counts) { *counts = simulator::live_counts(); }

void simulator_record_serializer(int record) { simulator::records_serializer = record != 0; }

void simulator_probe_gil(const unsigned long *counter, unsigned milliseconds) {
    simulator::gil_probe = {counter, std::chrono::milliseconds(milliseconds)};
}

void simulator_gil_probes(unsigned long *calls, unsigned long *released) {
    *calls = simulator::gil_probe.calls;
    *released = simulator::gil_probe.released;
}

const char *simulator_set_default_response(const simulator_reply *reply) {
    const char *reason = nullptr;
    json_object *object = simulator::new_object(*reply, simulator::Tracked::no, &reason);
    if (reason != nullptr) {
        return reason;
    }
    simulator::default_response = object == nullptr ? nullptr : simulator::intern_default(object);
    return nullptr;
}

json_object *simulator_default_response() { return simulator::default_response; }

int simulator_is_default_response(const json_object *object) {
    for (const json_object *known : simulator::interned_defaults) {
        if (known == object) {
            return 1;
        }
    }
    return 0;
}

void simulator_track_request(json_object *request) { simulator::track_object(request); }

// A fixed reply is for measurements of time, which the log would disturb.
void simulator_log_release(json_object *value) {
    if (simulator::fixed_services == 0) {
        simulator::log_call({"JSONObject.release", nullptr, nullptr, simulator::to_json(value)});
    }
}
