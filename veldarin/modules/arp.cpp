// Parses the output of "get system arp": after the header line, a row of columns on every line that
// is not blank.
#include "arp.h"

#include "cli.h"
#include "lines.h"
#include "runtime/errors.h"
#include "runtime/names.h"
#include "runtime/ref.h"
#include "runtime/state.h"
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
    {&Names::ipAddress, false},
    {&Names::age,       true },
    {&Names::mac,       false},
    {&Names::interface, true },
};
constexpr int column_count = 4;

// The dictionary of one row, or nothing with an exception and its entry. An interface of two words
// takes two columns.
template <typename Char>
Ref parse_row(Slice<Char> row, Pool<Char> &pool) {
    Ref arp = Ref::steal(PyDict_New());
    if (!arp) return failed(at::arp);

    Words<Char> words(row);
    Slice<Char> word;
    for (int i = 0; i < column_count; ++i) {
        if (!words.next(word)) return index_error(at::column + i);
        const Ref value = columns[i].repeats ? pool.to_str(word) : to_str(word);
        if (!value || PyDict_SetItem(arp.get(), names.*columns[i].key, value.get()) < 0) {
            return failed(at::column + i);
        }
    }
    Slice<Char> second;
    if (words.next(second)) {
        const Ref interface = joined(word, " ", second);
        if (!interface || PyDict_SetItem(arp.get(), names.interface, interface.get()) < 0) {
            return failed(at::joined);
        }
    }
    return arp;
}

template <typename Char>
PyObject *parse(Slice<Char> text) {
    Ref result = Ref::steal(PyList_New(0));
    if (!result) return failed(at::result);

    Fields<Char> lines(text, '\n');
    Slice<Char> line;
    do {
        if (!lines.next(line)) return index_error(at::header);
    } while (!starts_with(left_stripped(line), "Address"));

    Pool<Char> pool;
    while (lines.next(line)) {
        const Slice<Char> row = left_stripped(line);
        if (row.empty()) continue;
        const Ref arp = parse_row(row, pool);
        if (!arp) return nullptr;
        if (PyList_Append(result.get(), arp.get()) < 0) return failed(at::append);
    }
    return result.release();
}

}  // namespace

PyObject *get_system_arp_result() {
    const Ref text = command_text(names.arp_command);
    if (!text) return failed(at::output);
    if (!is_text(text.get(), names.split, state.constants.newline)) return failed(at::split);
    return scan(text.get(), [](auto slice) { return parse(slice); });
}

}  // namespace modules_util
