// Parses BFD sessions: a header line for each session, then key-value lines, with two timer blocks
// of three such lines. Every line is on its own: what is wrong with it is logged, and the next one
// is read.
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
    const Ref logger = global(interned[id::logger]);
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

Ref parse_non_ascii_key(TextView text, const StringCache &strings) {
    const Ref written = strings.make(text);
    if (!written) return {};
    const Ref lowered = Ref::steal(PyObject_CallMethodNoArgs(written.get(), interned[id::lower]));
    if (!lowered) return {};
    return str_replace(lowered.get(), state.constants.replace_blanks);
}

// What each ASCII character becomes in a key.
struct KeyTranslation {
    char of[128] = {};

    constexpr KeyTranslation() {
        for (int i = 0; i < 128; ++i) of[i] = static_cast<char>(i);
        for (int i = 'A'; i <= 'Z'; ++i) of[i] = static_cast<char>(i + ('a' - 'A'));
        of[int{' '}] = '_';
    }
};
constexpr KeyTranslation key_translation;

// text.strip().lower().replace(" ", "_"). A key is a short ASCII text in general, and is worked on
// before it becomes an object.
Ref parse_key(TextView text, StringCache &strings) {
    text = stripped(text);
    if (!strings.is_ascii() || text.size() > StringCache::max_cached)
        return parse_non_ascii_key(text, strings);
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
        return value ? str_remove(value.get(), state.constants.remove_packets) : Ref();
    }
    char value[StringCache::max_cached];
    return strings.make_cached({value, copy_without(text, TextView(packets_word), value)});
}

// The session that a text is parsed into. Each step returns false with an exception and its entry.
class Parser {
public:
    Parser(TextView text, LineReader lines, StringCache &strings)
        : text_(text), lines_(lines), strings_(strings) {}

    bool parse() {
        namespace at = source_line::get_bfd_neighbor;
        session_ = Ref::steal(PyDict_New());
        if (!session_) return fail(at::session);
        // The line after the skipped ones is asked for even if there is none.
        TextView line;
        if (!lines_.next(line)) {
            index_error(at::line);
            return log_exception(at::log);
        }
        do {
            if (!parse_line(left_stripped(line)) && !log_exception(at::log)) return false;
        } while (lines_.next(line));
        return true;
    }

    // Stores the session under its name, merged with one that is there already.
    bool store_into(PyObject *list_bfd) const {
        namespace at = source_line::get_bfd_neighbor;
        if (!name_ || PyDict_GET_SIZE(session_.get()) == 0) return true;
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
            return parse_timers(interned[id::local_timers], at::local_timers);
        }
        if (starts_with(line, TextView("Remote timers"))) {
            return parse_timers(interned[id::remote_timers], at::remote_timers);
        }
        return parse_field(line);
    }

    // "peer " in line. Looked for in all the lines ahead at once.
    bool is_header(TextView line) {
        if (!peer_ || peer_ < line.begin) peer_ = find({line.begin, text_.end}, TextView("peer "));
        return peer_ < line.end;
    }

    // A second header asks whether the type `list` contains the session, which no type answers: the
    // first session goes on collecting the lines of all others.
    bool parse_header(TextView line) {
        namespace at = source_line::get_bfd_neighbor;
        if (name_ && PyDict_GET_SIZE(session_.get()) > 0) {
            auto *type = reinterpret_cast<PyObject *>(&PyList_Type);
            return PySequence_Contains(type, name_.get()) >= 0 || fail(at::header_again);
        }
        TextView words[4];
        const int count = split(line, ' ', words);
        if (count < 2) return index_error(at::neighbor_ip);
        const TextView neighbor_ip = words[1];
        if (!put(interned[id::neighbor_ip], strings_.make(neighbor_ip), at::neighbor_ip))
            return false;
        if (count < 4) return index_error(at::interface);
        const TextView interface = words[3];
        if (!put(interned[id::interface], strings_.make(right_stripped(interface)), at::interface))
            return false;
        name_ = strings_.join(neighbor_ip, TextView("_"), interface);
        if (!name_) return fail(at::session_name);
        return put(interned[id::name], Ref::borrow(name_.get()), at::header_name);
    }

    // The three lines after a timers line, which they are read on from only if all are well.
    bool parse_timers(PyObject *key, const source_line::get_bfd_neighbor::Timers &at) {
        LineReader lines = lines_;
        const Ref timers = Ref::steal(PyDict_New());
        if (!timers) return fail(at.create);
        for (int i = 0; i < 3; ++i) {
            TextView line;
            if (!lines.next(line)) return index_error(at.split);
            TextView val[2];
            if (split(line, ':', val) < 2) return index_error(at.store);
            const Ref value = strings_.make_cached(stripped(val[1]));
            if (!value || !put_into(timers, parse_key(val[0], strings_), value))
                return fail(at.store);
        }
        if (!put(key, timers, at.keep)) return false;
        lines_ = lines;
        return true;
    }

    bool parse_field(TextView line) {
        namespace at = source_line::get_bfd_neighbor;
        TextView val[2];
        if (split(line, ':', val) < 2) return true;  // no key-value line
        const Ref value = parse_value(val[1], strings_);
        if (!value) return fail(at::value);
        return put_into(session_, parse_key(val[0], strings_), value) || fail(at::field);
    }

    bool put(PyObject *key, const Ref &value, int line) {
        return (value && PyDict_SetItem(session_.get(), key, value.get()) == 0) || fail(line);
    }

    static bool put_into(const Ref &dictionary, const Ref &key, const Ref &value) {
        return key && PyDict_SetItem(dictionary.get(), key.get(), value.get()) == 0;
    }

    TextView text_;
    LineReader lines_;
    StringCache &strings_;
    const char *peer_ = nullptr;  // the next of them; none looked for yet
    Ref session_;
    Ref name_;  // none before the first header
};

// The first two lines are never parsed. Of an output that names no object one line is skipped only:
// it gets a line break put before it, which a `str` need not be copied for.
int header_lines(PyObject *text, bool has_objname) {
    return has_objname || !PyUnicode_Check(text) ? 2 : 1;
}

// Whether the characters before `at`, back to `begin` or a line break, are all white space.
bool only_space_before(const char *at, const char *begin) {
    while (at != begin && at[-1] != '\n') {
        if (!is_space(--at)) return false;
    }
    return true;
}

// Whether a line has a tab after its first word. The tabs before it are stripped with the other
// white space. Before the last such tab there is nothing to look at again: the scan is linear.
bool has_inner_tab(TextView text) {
    while (true) {
        const char *const found = find(text, tab[0]);
        if (found == text.end) return false;
        if (!only_space_before(found, text.begin)) return true;
        text.begin = found;
        do ++text.begin;
        while (!text.empty() && *text.begin == tab[0]);
    }
}

// text.replace("\t", "")
Ref without_tabs(PyObject *text) {
    const Utf8Text opened = as_utf8(text);
    if (!opened.owner) return {};
    return has_inner_tab(opened.view) ? str_replace(text, state.constants.remove_tabs)
                                      : Ref::borrow(text);
}

// The text as the parser reads it. What is no text meets the same operators, until one refuses it.
// Null with an exception and its entry.
Ref normalize_input(PyObject *output, bool has_objname) {
    namespace at = source_line::get_bfd_neighbor;
    Ref text = Ref::borrow(output);
    if (!has_objname && !PyUnicode_Check(output)) {
        text = Ref::steal(PyNumber_Add(interned[id::newline], output));
        if (!text) return fail(at::prefix);
    }
    if (!check_str(text.get(), interned[id::split], state.constants.newline))
        return fail(at::split);
    text = without_tabs(text.get());
    return text ? std::move(text) : fail(at::split);
}

}  // namespace

PyObject *get_bfd_neighbor(PyObject *cmd, PyObject *list_bfd) {
    namespace at = source_line::get_bfd_neighbor;
    const Ref output = run_command(cmd);
    if (!output) return fail(at::output);
    const int peers = PySequence_Contains(output.get(), interned[id::peer]);
    if (peers < 0) return fail(at::peer);
    if (!peers) return Ref::borrow(list_bfd).release();
    const int has_objname = PySequence_Contains(output.get(), interned[id::objname]);
    if (has_objname < 0) return fail(at::objname);
    const Ref lines_of = normalize_input(output.get(), has_objname);
    if (!lines_of) return nullptr;
    const Utf8Text text = as_utf8(lines_of.get());
    if (!text.owner) return fail(at::split);

    LineReader lines(text.view);
    TextView line;
    for (int i = header_lines(output.get(), has_objname); i > 0; --i) lines.next(line);
    StringCache strings(text);
    Parser parser(text.view, lines, strings);
    if (!parser.parse() || !parser.store_into(list_bfd)) return nullptr;
    return Ref::borrow(list_bfd).release();
}

}  // namespace modules_util
