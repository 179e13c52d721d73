// Parses the output of "get router info routing-table detail": three lines of header, then one
// route on every line that is not blank.
#include "routing.h"

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

namespace at = line::get_routing_table_result;

bool put(const Ref &dictionary, PyObject *key, const Ref &value, int line) {
    if (value && PyDict_SetItem(dictionary.get(), key, value.get()) == 0) return true;
    return failed(line);
}

// dictionary[key] = text.split()[index]
template <typename Char>
bool put_word(const Ref &dictionary, PyObject *key, Slice<Char> text, int index, int line) {
    Slice<Char> word;
    if (!element(Words<Char>(text), index, word)) return index_error(line);
    return put(dictionary, key, to_str(word), line);
}

// dictionary[key] = info[field].split()[1]
template <typename Char>
bool put_field(const Ref &dictionary, PyObject *key, Fields<Char> info, int field, int line) {
    Slice<Char> text;
    if (!element(info, field, text)) return index_error(line);
    return put_word(dictionary, key, text, 1, line);
}

// The header line and the two after it.
template <typename Char>
bool parse_header(const Ref &routing_table, Fields<Char> &lines) {
    Slice<Char> line;
    do {
        if (!lines.next(line)) return index_error(at::header);
    } while (!starts_with(left_stripped(line), "Routing"));
    if (!put_word(routing_table, names.entry, line, 3, at::entry)) return false;

    if (!lines.next(line)) return index_error(at::info);
    const Fields<Char> info(line, ',');
    if (!put_field(routing_table, names.distance, info, 1, at::distance)) return false;
    if (!put_field(routing_table, names.metric, info, 2, at::metric)) return false;

    if (!lines.next(line)) return index_error(at::last_update);
    if (!put_word(routing_table, names.lastUpdate, line, 2, at::last_update)) return false;

    Slice<Char> first;
    Slice<Char> fourth;
    if (!element(info, 0, first) || !element(info, 3, fourth)) return index_error(at::other);
    return put(routing_table, names.other, joined(first, ", ", fourth), at::other);
}

// "ip", after the marker in front of it, if there is one: of two words or more the first is the
// marker.
template <typename Char>
bool parse_address(const Ref &route, Slice<Char> field, Pool<Char> &pool) {
    Words<Char> words(field);
    Slice<Char> first;
    Slice<Char> second;
    if (!words.next(first)) return index_error(at::address);
    if (!words.next(second)) {
        return put(route, names.main, Ref::borrow(names.empty), at::main) &&
               put(route, names.ip, to_str(first), at::address);
    }
    return put(route, names.main, pool.to_str(first), at::marker) &&
           put(route, names.ip, to_str(second), at::marked_address);
}

// "interface": the second word, or the only one.
template <typename Char>
bool parse_interface(const Ref &route, Slice<Char> field, Pool<Char> &pool) {
    Words<Char> words(field);
    Slice<Char> name;
    if (!words.next(name)) return index_error(at::interface);
    const int line = words.next(name) ? at::second_word : at::interface;
    return put(route, names.interface, pool.to_str(name), line);
}

// The dictionary of one route line, or nothing with an exception and its entry.
template <typename Char>
Ref parse_route(Slice<Char> row, Pool<Char> &pool) {
    Ref route = Ref::steal(PyDict_New());
    if (!route) return failed(at::route);
    Fields<Char> data(row, ',');
    Slice<Char> field;
    data.next(field);  // there is always a first field
    if (!parse_address(route, field, pool)) return {};
    if (!data.next(field)) return index_error(at::second_field);
    if (!parse_interface(route, field, pool)) return {};
    return route;
}

template <typename Char>
PyObject *parse(Slice<Char> text) {
    Ref routing_table = Ref::steal(PyDict_New());
    if (!routing_table) return failed(at::routing_table);
    const Ref table = Ref::steal(PyList_New(0));
    if (!table) return failed(at::table);

    Fields<Char> lines(text, '\n');
    if (!parse_header(routing_table, lines)) return nullptr;

    Pool<Char> pool;
    Slice<Char> line;
    while (lines.next(line)) {
        const Slice<Char> row = left_stripped(line);
        if (row.empty()) continue;
        const Ref route = parse_route(row, pool);
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
    const Ref text = without(output.get(), carriage_return);
    if (!text) return failed(at::split);
    return scan(text.get(), [](auto slice) { return parse(slice); });
}

}  // namespace modules_util
