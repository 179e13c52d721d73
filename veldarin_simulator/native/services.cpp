// The native services themselves, each exported under its own name with its exact signature, over
// one slot per service: a canned reply, handed out without entering Python, or the callback that
// asks Python, journalled.
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

// A reply that is kept: canned, or the one of a call under way.
struct Kept {
    json_object *object = nullptr;  // owned
    bool is_text = false;           // else a null in place of text
    std::string text;
    unsigned long number = 0;
};

struct Slot {
    bool canned = false;
    Kept kept;
    unsigned long calls = 0;
};

// A call that Python is being asked about. Each thread has its own, as the lock may change hands
// while a callback runs; a callback may itself call services, hence `outer`.
struct Question {
    Service service;
    std::size_t room = 0;  // longest text that a buffer in place can take
    Question *outer = nullptr;
    bool answered = false;
    int source = 0;
    Kept kept{};
};

Slot slots[kServices];
unsigned long misfits = 0;
std::size_t canned_services = 0;
simulator_callback ask_python = nullptr;
thread_local Question *asked = nullptr;

// What JSONObject() holds. Instances borrow them, so none is ever freed: one per text.
std::vector<json_object *> blanks;
json_object *blank = nullptr;

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

Slot &slot_of(Service service) { return slots[static_cast<std::size_t>(service)]; }

// Takes over a reply in the form of the service; null, or the reason why not.
const char *keep(simulator_form form, const simulator_reply &reply, Counted counted, Kept *kept) {
    const char *reason = nullptr;
    switch (form) {
        case APPLIANCE_FORM_JSON: kept->object = new_object(reply, counted, &reason); return reason;
        case APPLIANCE_FORM_TEXT:
        case APPLIANCE_FORM_WRAPPED:
        case APPLIANCE_FORM_IN_PLACE:
            if (reply.kind == APPLIANCE_REPLY_NULL && form != APPLIANCE_FORM_WRAPPED) {
                return nullptr;
            }
            if (reply.kind != APPLIANCE_REPLY_TEXT || reply.text == nullptr) {
                return "the service hands back text";
            }
            kept->is_text = true;
            kept->text.assign(reply.text, reply.length);
            if (form == APPLIANCE_FORM_IN_PLACE) {
                kept->text.resize(std::strlen(kept->text.c_str()));  // what counts against the room
            }
            return nullptr;
        case APPLIANCE_FORM_COUNT:
        case APPLIANCE_FORM_STATUS:
            if (reply.kind != APPLIANCE_REPLY_NUMBER) {
                return "the service hands back a number";
            }
            kept->number = reply.number;
            return nullptr;
    }
    return "no such form";
}

void uncan(Slot &slot) {
    if (slot.canned) {
        json_object_put(slot.kept.object);
        slot = {};
        --canned_services;
    }
}

// The object itself, or the blank of the same text in its place.
json_object *kept_blank(json_object *object) {
    const std::string text = rendered(object);
    for (json_object *known : blanks) {
        if (text == rendered(known)) {
            json_object_put(object);
            return known;
        }
    }
    blanks.push_back(object);
    return object;
}

// Journals the call and asks Python; without an answer the reply is null, nought or empty.
Kept ask(Question question, const Entry &entry) {
    const EntryId id = journal_add(entry);
    if (ask_python == nullptr) {
        return {};
    }
    const auto &input = entry.request ? entry.request : entry.text;
    question.outer = asked;
    asked = &question;
    ask_python(entry.service, input ? input->c_str() : nullptr);
    asked = question.outer;
    journal_mark(id, question.source);
    return std::move(question.kept);
}

json_object *reply_object(Service service, void *context, json_object *request, void *third) {
    probe_gil();
    Slot &slot = slot_of(service);
    if (slot.canned) {
        ++slot.calls;
        return json_object_get(slot.kept.object);
    }
    return ask({service}, {row(service).name, context, third, rendered(request)}).object;
}

// The reply is the slot's, or one put into `answer`.
const Kept &reply(Service service, void *context, const char *text, Kept &answer) {
    probe_gil();
    Slot &slot = slot_of(service);
    if (slot.canned) {
        ++slot.calls;
        return slot.kept;
    }
    Entry entry{row(service).name, context};
    Question question{service};
    if (text != nullptr) {
        entry.text = text;
        question.room = entry.text->size();
    }
    answer = ask(std::move(question), entry);
    return answer;
}

}  // namespace
}  // namespace simulator

using simulator::Kept;
using simulator::Service;

#define STATUS_FUNCTION(name)                                                                      \
    APPLIANCE_EXPORT json_object *name(void *context, json_object *request) {                      \
        return simulator::reply_object(Service::id_##name, context, request, nullptr);             \
    }
STATUS_SERVICES(STATUS_FUNCTION)

#define CAPTURE_FUNCTION(name)                                                                     \
    APPLIANCE_EXPORT json_object *name(void *context, json_object *request, void *third) {         \
        return simulator::reply_object(Service::id_##name, context, request, third);               \
    }
CAPTURE_SERVICES(CAPTURE_FUNCTION)

APPLIANCE_EXPORT char *get_cli_cmd_output(void *first, const char *command) {
    Kept answer;
    const Kept &kept = simulator::reply(Service::id_get_cli_cmd_output, first, command, answer);
    return kept.is_text ? simulator::new_text(kept.text) : nullptr;
}

APPLIANCE_EXPORT unsigned long aps_get_new_cookie_id() {
    Kept answer;
    return simulator::reply(Service::id_aps_get_new_cookie_id, nullptr, nullptr, answer).number;
}

APPLIANCE_EXPORT unsigned long __get_aps_hash(const char *text) {
    Kept answer;
    return simulator::reply(Service::id___get_aps_hash, nullptr, text, answer).number;
}

APPLIANCE_EXPORT char *cookieval_wrap(const char *text) {
    Kept answer;
    const Kept &kept = simulator::reply(Service::id_cookieval_wrap, nullptr, text, answer);
    return simulator::new_text_never_null(kept.text);
}

// Returns 0 when the text was unwrapped, -1 when the buffer is left as it was.
APPLIANCE_EXPORT int cookieval_unwrap(char *buffer) {
    Kept answer;
    const Kept &kept = simulator::reply(Service::id_cookieval_unwrap, nullptr, buffer, answer);
    if (!kept.is_text) {
        return -1;
    }
    if (kept.text.size() > std::strlen(buffer)) {
        ++simulator::misfits;
        return -1;
    }
    std::memcpy(buffer, kept.text.c_str(), kept.text.size() + 1);
    return 0;
}

APPLIANCE_EXPORT int gui_chk_cert_expiration(const char *path) {
    Kept answer;
    const Kept &kept = simulator::reply(Service::id_gui_chk_cert_expiration, nullptr, path, answer);
    return static_cast<int>(kept.number);
}

// Comes before json-c's own in the process, which is this one call as well.
APPLIANCE_EXPORT const char *json_object_to_json_string(json_object *object) {
    simulator::probe_gil();
    if (simulator::records_serializer) {
        simulator::journal_add({__func__, nullptr, nullptr, simulator::rendered(object)});
    }
    return json_object_to_json_string_ext(object, JSON_C_TO_STRING_SPACED);
}

int simulator_open(simulator_callback callback, int counting) {
    simulator_close();
    simulator::journal_forget();
    simulator::misfits = 0;
    simulator::ask_python = callback;
    return simulator::open_handout(counting != 0) ? 1 : 0;
}

void simulator_close() {
    simulator::ask_python = nullptr;
    simulator::blank = nullptr;
    simulator::records_serializer = false;
    simulator::gil_probe = {};
    for (auto &slot : simulator::slots) {
        simulator::uncan(slot);
    }
    simulator::close_handout();
}

const char *simulator_service(size_t index, int *form) {
    if (index >= simulator::kServices) {
        return nullptr;
    }
    *form = simulator::kRows[index].form;
    return simulator::kRows[index].name;
}

const char *simulator_answer(const simulator_reply *reply) {
    simulator::Question *question = simulator::asked;
    if (question == nullptr || question->answered) {
        return "no call waits for an answer";
    }
    const simulator_form form = simulator::row(question->service).form;
    const char *reason = simulator::keep(form, *reply, simulator::Counted::yes, &question->kept);
    if (form == APPLIANCE_FORM_IN_PLACE && question->kept.text.size() > question->room) {
        question->kept = {};
        reason = "the text is longer than the one in the caller's buffer";
    }
    if (reason == nullptr) {
        question->answered = true;
        question->source = reply->source;
    }
    return reason;
}

const char *simulator_can(size_t service, const simulator_reply *reply) {
    if (service >= simulator::kServices) {
        return "no such service";
    }
    simulator::Slot &slot = simulator::slots[service];
    simulator::uncan(slot);
    const simulator_form form = simulator::kRows[service].form;
    const char *reason = simulator::keep(form, *reply, simulator::Counted::no, &slot.kept);
    if (reason == nullptr) {
        slot.canned = true;
        ++simulator::canned_services;
    }
    return reason;
}

void simulator_uncan(size_t service) {
    if (service < simulator::kServices) {
        simulator::uncan(simulator::slots[service]);
    }
}

unsigned long simulator_canned_calls(size_t service) {
    return service < simulator::kServices ? simulator::slots[service].calls : 0;
}

unsigned long simulator_canned_misfits() { return std::exchange(simulator::misfits, 0); }

void simulator_count(simulator_counts *counts) { *counts = simulator::counts(); }

void simulator_record_serializer(int record) { simulator::records_serializer = record != 0; }

void simulator_probe_gil(const unsigned long *counter, unsigned milliseconds) {
    simulator::gil_probe = {counter, std::chrono::milliseconds(milliseconds)};
}

void simulator_gil_probes(unsigned long *calls, unsigned long *released) {
    *calls = simulator::gil_probe.calls;
    *released = simulator::gil_probe.released;
}

const char *simulator_set_blank(const simulator_reply *reply) {
    const char *reason = nullptr;
    json_object *object = simulator::new_object(*reply, simulator::Counted::no, &reason);
    if (reason != nullptr) {
        return reason;
    }
    simulator::blank = object == nullptr ? nullptr : simulator::kept_blank(object);
    return nullptr;
}

json_object *simulator_blank() { return simulator::blank; }

int simulator_is_blank(const json_object *object) {
    for (const json_object *known : simulator::blanks) {
        if (known == object) {
            return 1;
        }
    }
    return 0;
}

void simulator_watch(json_object *request) { simulator::watch(request); }

// While a service is canned someone measures time; then releases are not journalled.
void simulator_note_release(json_object *held) {
    if (simulator::canned_services == 0) {
        simulator::journal_add({"JSONObject.release", nullptr, nullptr, simulator::rendered(held)});
    }
}
