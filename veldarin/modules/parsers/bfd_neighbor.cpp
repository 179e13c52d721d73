// Parses BFD sessions: a header line for each session, then key-value lines, among them two timer
// blocks of three such lines. The parser logs an error in a line and continues with the next line.
#include "veldarin/modules/parsers/bfd_neighbor.h"

#include "veldarin/modules/cli.h"
#include "veldarin/modules/interned.h"
#include "veldarin/modules/python/errors.h"
#include "veldarin/modules/python/globals.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/python/traceback.h"
#include "veldarin/modules/state.h"
#include "veldarin/modules/text/string_cache.h"
#include "veldarin/modules/text/utf8_text.h"
#include "veldarin/modules/traceback_lines.h"

namespace modules_util {

bool log_exception(int line) {
    if (!PyErr_ExceptionMatches(PyExc_Exception)) return false;
    const HandledException exception;
    const Ref logger = global(id::logger);
    if (!logger) return fail(line);
    const Ref debug = Ref::steal(PyObject_GetAttr(logger.get(), interned[id::debug]));
    if (!debug) return fail(line);
    const Ref message = Ref::steal(PyUnicode_FromFormat("e:%S", exception.value()));
    if (!message) return fail(line);
    const Ref done = Ref::steal(PyObject_CallOneArg(debug.get(), message.get()));
    return done || fail(line);
}

Ref merge_dicts(PyObject *older, PyObject *newer) {
    const Ref arguments = Ref::steal(PyTuple_Pack(1, older));
    if (!arguments) return {};
    return Ref::steal(
        PyObject_Call(reinterpret_cast<PyObject *>(&PyDict_Type), arguments.get(), newer));
}

namespace {

constexpr char tab = '\t';
constexpr char packets[] = "packets";

// Translates a key that is long or not ASCII, through a `str`.
Ref parse_uncommon_key(TextView text, const StringCache &strings) {
    const Ref key = strings.make(text);
    if (!key) return {};
    const Ref lower = Ref::steal(PyObject_CallMethodNoArgs(key.get(), interned[id::lower]));
    if (!lower) return {};
    return str_replace(lower.get(), state.constants.replace_args.spaces);
}

// Maps each ASCII character to its replacement in a key.
struct KeyTranslation {
    char of[128] = {};

    constexpr KeyTranslation() {
        for (int i = 0; i < 128; ++i) of[i] = static_cast<char>(i);
        for (int i = 'A'; i <= 'Z'; ++i) of[i] = static_cast<char>(i + ('a' - 'A'));
        of[int{' '}] = '_';
    }
};
constexpr KeyTranslation key_translation;

// text.strip().lower().replace(" ", "_"). A short ASCII key is translated on the stack, before it
// becomes an object.
Ref parse_key(TextView text, StringCache &strings) {
    text = stripped(text);
    if (!strings.is_ascii() || text.size() > StringCache::max_cached) {
        return parse_uncommon_key(text, strings);
    }
    char key[StringCache::max_cached];
    char *end = key;
    for (const char *at = text.begin; at != text.end; ++at) *end++ = key_translation.of[int{*at}];
    return strings.make_cached({key, end});
}

// text.strip().replace("packets", "")
Ref parse_value(TextView text, StringCache &strings) {
    text = stripped(text);
    if (text.size() > StringCache::max_cached) {
        const Ref value = strings.make(text);
        return value ? str_remove(value.get(), state.constants.replace_args.packets) : Ref();
    }
    char value[StringCache::max_cached];
    return strings.make_cached({value, copy_without(text, TextView(packets), value)});
}

// Parses a text into one session. Each method returns false with an exception and its traceback
// entry.
class Parser {
public:
    Parser(TextView text, LineReader lines, StringCache &strings)
        : text_(text), lines_(lines), strings_(strings) {}

    bool parse() {
        namespace at = source_line::get_bfd_neighbor;
        session_ = Ref::steal(PyDict_New());
        if (!session_) return fail(at::session);
        // Output that ends before the first line to parse is an IndexError, which is logged.
        TextView line;
        if (!lines_.next(line)) {
            fail_with_index_error(at::line);
            return log_exception(at::log);
        }
        do {
            if (!parse_line(left_stripped(line)) && !log_exception(at::log)) return false;
        } while (lines_.next(line));
        return true;
    }

    // Stores the session under its name, merged into an older session of that name.
    bool store_into(PyObject *list_bfd) const {
        namespace at = source_line::get_bfd_neighbor;
        if (!name_) return true;
        const int known = PySequence_Contains(list_bfd, name_.get());
        if (known < 0) return fail(at::known);
        if (!known) {
            return PyObject_SetItem(list_bfd, name_.get(), session_.get()) == 0 || fail(at::store);
        }
        const Ref older = Ref::steal(PyObject_GetItem(list_bfd, name_.get()));
        if (!older) return fail(at::merge);
        const Ref both = merge_dicts(older.get(), session_.get());
        if (!both) return fail(at::merge);
        return PyObject_SetItem(list_bfd, name_.get(), both.get()) == 0 || fail(at::merge);
    }

private:
    bool parse_line(TextView line) {
        namespace at = source_line::get_bfd_neighbor;
        if (is_header(line)) return parse_header(line);
        if (starts_with(line, TextView("Local timers"))) {
            return parse_timers(id::local_timers, at::local_timers);
        }
        if (starts_with(line, TextView("Remote timers"))) {
            return parse_timers(id::remote_timers, at::remote_timers);
        }
        return parse_field(line);
    }

    // "peer " in line. Searches all lines ahead, so that most lines need no search of their own.
    bool is_header(TextView line) {
        if (!peer_ || peer_ < line.begin) peer_ = find({line.begin, text_.end}, TextView("peer "));
        return peer_ < line.end;
    }

    // Deliberate quirk: a second header evaluates `name in list` (the builtin), which raises
    // TypeError and is logged; later lines go into the first session.
    bool parse_header(TextView line) {
        namespace at = source_line::get_bfd_neighbor;
        if (name_) {
            auto *type = reinterpret_cast<PyObject *>(&PyList_Type);
            return PySequence_Contains(type, name_.get()) >= 0 || fail(at::header_again);
        }
        TextView words[4];
        const int count = split(line, ' ', words);
        const TextView neighbor_ip = words[1];  // a header contains a space
        if (!put(id::neighbor_ip, strings_.make(neighbor_ip), at::neighbor_ip)) {
            return false;
        }
        if (count < 4) return fail_with_index_error(at::interface);
        const TextView interface = words[3];
        if (!put(id::interface, strings_.make(right_stripped(interface)), at::interface)) {
            return false;
        }
        name_ = strings_.join(neighbor_ip, TextView("_"), interface);
        if (!name_) return fail(at::session_name);
        return put(id::name, Ref::borrow(name_.get()), at::header_name);
    }

    // Parses the three lines after a timers line. If one of them is wrong, the parser reads them
    // again as lines of the session.
    bool parse_timers(StringId key, const source_line::get_bfd_neighbor::Timers &at) {
        LineReader lines = lines_;
        const Ref timers = Ref::steal(PyDict_New());
        if (!timers) return fail(at.create);
        for (int i = 0; i < 3; ++i) {
            TextView line;
            if (!lines.next(line)) return fail_with_index_error(at.split);
            TextView val[2];
            if (split(line, ':', val) < 2) return fail_with_index_error(at.store);
            const Ref value = strings_.make_cached(stripped(val[1]));
            if (!value || !put_into(timers, parse_key(val[0], strings_), value)) {
                return fail(at.store);
            }
        }
        if (!put(key, timers, at.keep)) return false;
        lines_ = lines;
        return true;
    }

    bool parse_field(TextView line) {
        namespace at = source_line::get_bfd_neighbor;
        TextView val[2];
        if (split(line, ':', val) < 2) return true;  // not a key-value line
        const Ref value = parse_value(val[1], strings_);
        if (!value) return fail(at::value);
        return put_into(session_, parse_key(val[0], strings_), value) || fail(at::field);
    }

    bool put(StringId key, const Ref &value, int line) {
        return (value && PyDict_SetItem(session_.get(), interned[key], value.get()) == 0) ||
               fail(line);
    }

    static bool put_into(const Ref &dictionary, const Ref &key, const Ref &value) {
        return key && PyDict_SetItem(dictionary.get(), key.get(), value.get()) == 0;
    }

    TextView text_;
    LineReader lines_;
    StringCache &strings_;
    const char *peer_ = nullptr;  // the next occurrence of "peer "; null before the first search
    Ref session_;
    Ref name_;  // null before the first header
};

// The parser skips two lines, and treats output without "objname" as if it began with "\n". It does
// not copy a str to prepend that, but skips one line fewer.
int skipped_lines(PyObject *text, bool has_objname) {
    return has_objname || !PyUnicode_Check(text) ? 2 : 1;
}

// Whether all characters between the start of the line, or `begin`, and `at` are white space.
bool only_space_before(const char *at, const char *begin) {
    while (at != begin && at[-1] != '\n') {
        if (!is_space(--at)) return false;
    }
    return true;
}

// Whether a line has a tab after its first word; the parser strips leading tabs anyway. Each search
// begins after the last leading tab, which keeps the scan linear.
bool has_inner_tab(TextView text) {
    while (true) {
        const char *const found = find(text, tab);
        if (found == text.end) return false;
        if (!only_space_before(found, text.begin)) return true;
        text.begin = found;
        do ++text.begin;
        while (!text.empty() && *text.begin == tab);
    }
}

// text.replace("\t", "")
Ref without_tabs(PyObject *text) {
    const Utf8Text utf8 = as_utf8(text);
    if (!utf8.owner) return {};
    if (!has_inner_tab(utf8.view)) return Ref::borrow(text);
    return str_replace(text, state.constants.replace_args.tabs);
}

// Returns the output as a str without inner tabs. Adds "\n" to any other object, as Python code
// would; the sum must be a str. Returns null with an exception and its traceback entry.
Ref normalize_input(PyObject *output, bool has_objname) {
    namespace at = source_line::get_bfd_neighbor;
    Ref text = Ref::borrow(output);
    if (!has_objname && !PyUnicode_Check(output)) {
        text = Ref::steal(PyNumber_Add(interned[id::newline], output));
        if (!text) return fail(at::prefix);
    }
    PyObject *split_args = state.constants.split_args;
    if (!check_str(text.get(), interned[id::split], split_args)) return fail(at::split);
    text = without_tabs(text.get());
    return text ? std::move(text) : fail(at::split);
}

}  // namespace

PyObject *get_bfd_neighbor(PyObject *cmd, PyObject *list_bfd) {
    namespace at = source_line::get_bfd_neighbor;
    const Ref output = run_command(cmd);
    if (!output) return fail(at::output);
    const int has_peer = PySequence_Contains(output.get(), interned[id::peer]);
    if (has_peer < 0) return fail(at::peer);
    if (!has_peer) return Ref::borrow(list_bfd).release();
    const int has_objname = PySequence_Contains(output.get(), interned[id::objname]);
    if (has_objname < 0) return fail(at::objname);
    const Ref input = normalize_input(output.get(), has_objname);
    if (!input) return nullptr;
    const Utf8Text text = as_utf8(input.get());
    if (!text.owner) return fail(at::split);

    LineReader lines(text.view);
    TextView line;
    for (int i = skipped_lines(output.get(), has_objname); i > 0; --i) lines.next(line);
    StringCache strings(text);
    Parser parser(text.view, lines, strings);
    if (!parser.parse() || !parser.store_into(list_bfd)) return nullptr;
    return Ref::borrow(list_bfd).release();
}

}  // namespace modules_util
