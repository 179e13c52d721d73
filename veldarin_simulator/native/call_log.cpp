// The log of native calls.
#include "call_log.h"

#include <utility>
#include <vector>

namespace simulator {
namespace {

constexpr std::size_t kMaxCalls = 100'000;  // a full log drops its older half

std::vector<LogEntry> entries;
LogIndex first = 0;  // of entries.front()

}  // namespace

LogIndex log_call(LogEntry entry) {
    if (entries.size() == kMaxCalls) {
        entries.erase(entries.begin(), entries.begin() + kMaxCalls / 2);
        first += kMaxCalls / 2;
    }
    entries.push_back(std::move(entry));
    return first + entries.size() - 1;
}

void set_source(LogIndex index, int source) {
    if (index >= first && index - first < entries.size()) {
        entries[index - first].source = source;
    }
}

std::string to_json(json_object *object) {
    const char *text = json_object_to_json_string_ext(
        object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    return text == nullptr ? "(no memory for the text)" : text;
}

}  // namespace simulator

size_t simulator_call_log_size() { return simulator::entries.size(); }

int simulator_call_log_read(size_t index, simulator_call *call) {
    if (index >= simulator::entries.size()) {
        return 0;
    }
    const simulator::LogEntry &entry = simulator::entries[index];
    *call = {entry.service,
             entry.context,
             entry.third,
             entry.request ? entry.request->c_str() : nullptr,
             entry.text ? entry.text->c_str() : nullptr,
             entry.source};
    return 1;
}

void simulator_clear_calls() {
    simulator::first += simulator::entries.size();
    simulator::entries.clear();
}
