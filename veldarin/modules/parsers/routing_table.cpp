// Parses the output of "get router info routing-table detail": three header lines, then one route
// on every line that is not blank.
#include "veldarin/modules/parsers/routing_table.h"

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

namespace at = source_line::get_routing_table_result;

bool put(const Ref &dictionary, StringId key, const Ref &value, int line) {
    if (value && PyDict_SetItem(dictionary.get(), interned[key], value.get()) == 0) return true;
    return fail(line);
}

// dictionary[key] = text.split()[index]
bool put_word(const Ref &dictionary, StringId key, TextView text, int index, StringCache &strings,
              int line) {
    TextView words[4];
    if (split(text, words) <= index) return fail_with_index_error(line);
    return put(dictionary, key, strings.make(words[index]), line);
}

// Parses the "Routing" line and the two after it.
bool parse_header(const Ref &routing_table, LineReader &lines, StringCache &strings) {
    TextView line;
    do {
        if (!lines.next(line)) return fail_with_index_error(at::header);
    } while (!starts_with(left_stripped(line), TextView("Routing")));
    if (!put_word(routing_table, id::entry, line, 3, strings, at::entry)) return false;

    if (!lines.next(line)) return fail_with_index_error(at::info);
    TextView info[4];
    const int count = split(line, ',', info);
    // An absent field is empty, so it has no second word.
    if (!put_word(routing_table, id::distance, info[1], 1, strings, at::distance)) return false;
    if (!put_word(routing_table, id::metric, info[2], 1, strings, at::metric)) return false;

    if (!lines.next(line)) return fail_with_index_error(at::last_update);
    if (!put_word(routing_table, id::lastUpdate, line, 2, strings, at::last_update)) return false;

    if (count < 4) return fail_with_index_error(at::other);
    return put(routing_table, id::other, strings.join(info[0], TextView(", "), info[3]), at::other);
}

// Parses "main" and "ip". If the field has two words or more, the first is a marker and the second
// the address.
bool parse_address(const Ref &route, TextView field, StringCache &strings) {
    TextView words[2];
    switch (split(field, words)) {
        case 0: return fail_with_index_error(at::address);
        case 1:
            return put(route, id::main, Ref::borrow(interned[id::empty]), at::main) &&
                   put(route, id::ip, strings.make(words[0]), at::address);
        default:
            return put(route, id::main, strings.make_cached(words[0]), at::marker) &&
                   put(route, id::ip, strings.make(words[1]), at::marked_address);
    }
}

// Parses "interface": the second word, or the only one.
bool parse_interface(const Ref &route, TextView field, StringCache &strings) {
    TextView words[2];
    const int count = split(field, words);
    if (count == 0) return fail_with_index_error(at::interface);
    const int line = count == 1 ? at::interface : at::second_word;
    return put(route, id::interface, strings.make_cached(words[count - 1]), line);
}

// The dictionary of a route, or null with an exception and its traceback entry.
Ref parse_route(TextView row, StringCache &strings) {
    Ref route = Ref::steal(PyDict_New());
    if (!route) return fail(at::route);
    TextView data[2];
    const int count = split(row, ',', data);
    if (!parse_address(route, data[0], strings)) return {};
    if (count < 2) return fail_with_index_error(at::second_field);
    if (!parse_interface(route, data[1], strings)) return {};
    return route;
}

PyObject *parse(const Utf8Text &text) {
    Ref routing_table = Ref::steal(PyDict_New());
    if (!routing_table) return fail(at::routing_table);
    const Ref table = Ref::steal(PyList_New(0));
    if (!table) return fail(at::table);

    LineReader lines(text.view);
    StringCache strings(text);
    if (!parse_header(routing_table, lines, strings)) return nullptr;

    TextView line;
    while (lines.next(line)) {
        const TextView row = left_stripped(line);
        if (row.empty()) continue;
        const Ref route = parse_route(row, strings);
        if (!route) return nullptr;
        if (PyList_Append(table.get(), route.get()) < 0) return fail(at::append);
    }
    if (PyDict_SetItem(routing_table.get(), interned[id::table], table.get()) < 0) {
        return fail(at::result);
    }
    return routing_table.release();
}

Ref run_routing_command(PyObject *ip_address) {
    const Ref command = Ref::steal(
        PyObject_CallMethodOneArg(interned[id::routing_command], interned[id::format], ip_address));
    return command ? run_command(command.get()) : Ref();
}

}  // namespace

PyObject *get_routing_table_result(PyObject *ip_address) {
    const Ref output = run_routing_command(ip_address);
    if (!output) return fail(at::output);
    PyObject *pair = state.constants.replace_args.carriage_returns;
    if (!check_str(output.get(), interned[id::replace], pair)) return fail(at::split);
    const Ref without_returns = str_remove(output.get(), pair);
    if (!without_returns) return fail(at::split);
    const Utf8Text text = as_utf8(without_returns.get());
    if (!text.owner) return fail(at::split);
    return parse(text);
}

}  // namespace modules_util
