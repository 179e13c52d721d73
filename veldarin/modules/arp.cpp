// Parses the output of "get system arp": after the header line, a row of columns on every line that
// is not blank.
#include "arp.h"

#include "cli.h"
#include "lines.h"
#include "runtime/errors.h"
#include "runtime/names.h"
#include "runtime/ref.h"
#include "runtime/state.h"
#include "runtime/strings.h"
#include "runtime/text.h"
#include "runtime/traceback.h"

namespace modules_util {

namespace {

namespace at = line::get_system_arp_result;

struct Column {
    Name key;
    bool repeats;  // the same value in many rows
};

constexpr Column columns[] = {
    {Name::ipAddress, false},
    {Name::age,       true },
    {Name::mac,       false},
    {Name::interface, true },
};
constexpr int column_count = 4;

// The dictionary of one row, or nothing with an exception and its entry. An interface of two words
// takes two columns.
Ref new_row(const Slice *words, int count, Strings &strings) {
    Ref arp = Ref::steal(PyDict_New());
    if (!arp) return failed(at::arp);

    for (int i = 0; i < column_count; ++i) {
        if (i == count) return index_error(at::column + i);
        const Ref value =
            columns[i].repeats ? strings.make_or_repeat(words[i]) : strings.make(words[i]);
        if (!value || PyDict_SetItem(arp.get(), names[columns[i].key], value.get()) < 0) {
            return failed(at::column + i);
        }
    }
    if (count > column_count) {
        const Ref interface =
            strings.join(words[column_count - 1], Slice(" "), words[column_count]);
        if (!interface || PyDict_SetItem(arp.get(), names.interface, interface.get()) < 0) {
            return failed(at::joined);
        }
    }
    return arp;
}

PyObject *parse(const Text &text) {
    Ref result = Ref::steal(PyList_New(0));
    if (!result) return failed(at::result);

    Lines lines(text.all);
    Slice line;
    do {
        if (!lines.next(line)) return index_error(at::header);
    } while (!starts_with(left_stripped(line), Slice("Address")));

    Strings strings(text);
    while (lines.next(line)) {
        Slice words[column_count + 1];
        const int count = split(line, words);
        if (count == 0) continue;
        const Ref arp = new_row(words, count, strings);
        if (!arp) return nullptr;
        if (PyList_Append(result.get(), arp.get()) < 0) return failed(at::append);
    }
    return result.release();
}

}  // namespace

PyObject *get_system_arp_result() {
    const Ref output = command_text(names.arp_command);
    if (!output) return failed(at::output);
    if (!is_text(output.get(), names.split, state.constants.newline)) return failed(at::split);
    const Text text = open(output.get());
    if (!text.owner) return failed(at::split);
    return parse(text);
}

}  // namespace modules_util
