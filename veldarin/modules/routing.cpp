// Parses the output of "get router info routing-table detail": three lines of header, then one
// route on every line that is not blank.
#include "routing.h"

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

namespace at = line::get_routing_table_result;

bool put(const Ref &dictionary, PyObject *key, const Ref &value, int line) {
    if (value && PyDict_SetItem(dictionary.get(), key, value.get()) == 0) return true;
    return failed(line);
}

// dictionary[key] = text.split()[index]
bool put_word(const Ref &dictionary, PyObject *key, Slice text, int index, Strings &strings,
              int line) {
    Slice words[4];
    if (split(text, words) <= index) return index_error(line);
    return put(dictionary, key, strings.make(words[index]), line);
}

// The header line and the two after it.
bool parse_header(const Ref &routing_table, Lines &lines, Strings &strings) {
    Slice line;
    do {
        if (!lines.next(line)) return index_error(at::header);
    } while (!starts_with(left_stripped(line), Slice("Routing")));
    if (!put_word(routing_table, names.entry, line, 3, strings, at::entry)) return false;

    if (!lines.next(line)) return index_error(at::info);
    Slice info[4];
    const int count = split(line, ',', info);
    if (count < 2) return index_error(at::distance);
    if (!put_word(routing_table, names.distance, info[1], 1, strings, at::distance)) return false;
    if (count < 3) return index_error(at::metric);
    if (!put_word(routing_table, names.metric, info[2], 1, strings, at::metric)) return false;

    if (!lines.next(line)) return index_error(at::last_update);
    if (!put_word(routing_table, names.lastUpdate, line, 2, strings, at::last_update)) return false;

    if (count < 4) return index_error(at::other);
    return put(routing_table, names.other, strings.join(info[0], Slice(", "), info[3]), at::other);
}

// "ip", after the marker in front of it, if there is one: of two words or more the first is the
// marker.
bool parse_address(const Ref &route, Slice field, Strings &strings) {
    Slice words[2];
    switch (split(field, words)) {
        case 0: return index_error(at::address);
        case 1:
            return put(route, names.main, Ref::borrow(names.empty), at::main) &&
                   put(route, names.ip, strings.make(words[0]), at::address);
        default:
            return put(route, names.main, strings.make_or_repeat(words[0]), at::marker) &&
                   put(route, names.ip, strings.make(words[1]), at::marked_address);
    }
}

// "interface": the second word, or the only one.
bool parse_interface(const Ref &route, Slice field, Strings &strings) {
    Slice words[2];
    const int count = split(field, words);
    if (count == 0) return index_error(at::interface);
    const int line = count == 1 ? at::interface : at::second_word;
    return put(route, names.interface, strings.make_or_repeat(words[count - 1]), line);
}

// The dictionary of one route line, or nothing with an exception and its entry.
Ref parse_route(Slice row, Strings &strings) {
    Ref route = Ref::steal(PyDict_New());
    if (!route) return failed(at::route);
    Slice data[2];
    const int count = split(row, ',', data);
    if (!parse_address(route, data[0], strings)) return {};
    if (count < 2) return index_error(at::second_field);
    if (!parse_interface(route, data[1], strings)) return {};
    return route;
}

PyObject *parse(const Text &text) {
    Ref routing_table = Ref::steal(PyDict_New());
    if (!routing_table) return failed(at::routing_table);
    const Ref table = Ref::steal(PyList_New(0));
    if (!table) return failed(at::table);

    Lines lines(text.all);
    Strings strings(text);
    if (!parse_header(routing_table, lines, strings)) return nullptr;

    Slice line;
    while (lines.next(line)) {
        const Slice row = left_stripped(line);
        if (row.empty()) continue;
        const Ref route = parse_route(row, strings);
        if (!route) return nullptr;
        if (PyList_Append(table.get(), route.get()) < 0) return failed(at::append);
    }
    if (PyDict_SetItem(routing_table.get(), names.table, table.get()) < 0) {
        return failed(at::result);
    }
    return routing_table.release();
}

Ref routing_text(PyObject *ip_address) {
    const Ref command =
        Ref::steal(PyObject_CallMethodOneArg(names.routing_command, names.format, ip_address));
    return command ? command_text(command.get()) : Ref();
}

}  // namespace

PyObject *get_routing_table_result(PyObject *ip_address) {
    const Ref output = routing_text(ip_address);
    if (!output) return failed(at::output);
    if (!is_text(output.get(), names.replace, state.constants.remove_returns)) {
        return failed(at::split);
    }
    const Ref without_returns = removed(output.get(), state.constants.remove_returns);
    if (!without_returns) return failed(at::split);
    const Text text = open(without_returns.get());
    if (!text.owner) return failed(at::split);
    return parse(text);
}

}  // namespace modules_util
