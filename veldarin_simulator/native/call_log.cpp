// The journal, bounded: of a process that runs on the stand-in for days it keeps the latest calls.
#include "call_log.h"

#include <utility>
#include <vector>

namespace simulator {
namespace {

constexpr std::size_t kLongest = 100'000;  // when it is reached, the older half goes

std::vector<Entry> entries;
EntryId first = 0;  // of entries.front()

}  // namespace

EntryId journal_add(Entry entry) {
    if (entries.size() == kLongest) {
        entries.erase(entries.begin(), entries.begin() + kLongest / 2);
        first += kLongest / 2;
    }
    entries.push_back(std::move(entry));
    return first + entries.size() - 1;
}

void journal_mark(EntryId id, int source) {
    if (id >= first && id - first < entries.size()) {
        entries[id - first].source = source;
    }
}

void journal_forget() {
    first += entries.size();
    entries.clear();
}

std::string rendered(json_object *object) {
    const char *text = json_object_to_json_string_ext(
        object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    return text == nullptr ? "(no memory for the text)" : text;
}

}  // namespace simulator

size_t simulator_journal_size() { return simulator::entries.size(); }

int simulator_journal_read(size_t index, simulator_call *call) {
    if (index >= simulator::entries.size()) {
        return 0;
    }
    const simulator::Entry &entry = simulator::entries[index];
    *call = {entry.service,
             entry.context,
             entry.third,
             entry.request ? entry.request->c_str() : nullptr,
             entry.text ? entry.text->c_str() : nullptr,
             entry.source};
    return 1;
}

void simulator_journal_forget() { simulator::journal_forget(); }
