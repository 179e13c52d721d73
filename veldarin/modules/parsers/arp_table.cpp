// Parses the output of "get system arp": after the header line, every line that is not blank is a
// row of columns.
#include "veldarin/modules/parsers/arp_table.h"

#include "veldarin/modules/cli.h"
#include "veldarin/modules/interned.h"
#include "veldarin/modules/python/errors.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/python/traceback.h"
#include "veldarin/modules/state.h"
#include "veldarin/modules/text/string_cache.h"
#include "veldarin/modules/text/utf8_text.h"
#include "veldarin/modules/traceback_lines.h"

namespace modules_util {

namespace {

namespace at = source_line::get_system_arp_result;

struct Column {
    StringId key;
    bool repeats;  // many rows have the same value
};

constexpr Column columns[] = {
    {id::ipAddress, false},
    {id::age,       true },
    {id::mac,       false},
    {id::interface, true },
};
constexpr int column_count = 4;

// The dictionary of a row, or null with an exception and its traceback entry. An interface name
// may consist of two words.
Ref new_row(const TextView *words, int count, StringCache &strings) {
    Ref arp = Ref::steal(PyDict_New());
    if (!arp) return fail(at::arp);

    for (int i = 0; i < column_count; ++i) {
        if (i == count) return fail_with_index_error(at::column + i);
        const Ref value =
            columns[i].repeats ? strings.make_cached(words[i]) : strings.make(words[i]);
        if (!value || PyDict_SetItem(arp.get(), interned[columns[i].key], value.get()) < 0) {
            return fail(at::column + i);
        }
    }
    if (count > column_count) {
        const Ref interface =
            strings.join(words[column_count - 1], TextView(" "), words[column_count]);
        if (!interface || PyDict_SetItem(arp.get(), interned[id::interface], interface.get()) < 0) {
            return fail(at::joined);
        }
    }
    return arp;
}

PyObject *parse(const Utf8Text &text) {
    Ref result = Ref::steal(PyList_New(0));
    if (!result) return fail(at::result);

    LineReader lines(text.view);
    TextView line;
    do {
        if (!lines.next(line)) return fail_with_index_error(at::header);
    } while (!starts_with(left_stripped(line), TextView("Address")));

    StringCache strings(text);
    while (lines.next(line)) {
        TextView words[column_count + 1];
        const int count = split(line, words);
        if (count == 0) continue;
        const Ref arp = new_row(words, count, strings);
        if (!arp) return nullptr;
        if (PyList_Append(result.get(), arp.get()) < 0) return fail(at::append);
    }
    return result.release();
}

}  // namespace

PyObject *get_system_arp_result() {
    const Ref output = run_command(interned[id::arp_command]);
    if (!output) return fail(at::output);
    PyObject *split_args = state.constants.split_args;
    if (!check_str(output.get(), interned[id::split], split_args)) return fail(at::split);
    const Utf8Text text = as_utf8(output.get());
    if (!text.owner) return fail(at::split);
    return parse(text);
}

}  // namespace modules_util
