// Parses BFD sessions: a header line for each session, then key-value lines, with two timer blocks
// of three such lines. Every line is on its own: what is wrong with it is logged, and the next one
// is read.
#include "bfd.h"

#include "cli.h"
#include "lines.h"
#include "runtime/errors.h"
#include "runtime/globals.h"
#include "runtime/names.h"
#include "runtime/ref.h"
#include "runtime/state.h"
#include "runtime/strings.h"
#include "runtime/text.h"
#include "runtime/traceback.h"

namespace modules_util {

bool logged(int line) {
    if (!PyErr_ExceptionMatches(PyExc_Exception)) return false;
    const Handled exception;
    const Ref logger = global(names.logger);
    if (!logger) return failed(line);
    const Ref debug = Ref::steal(PyObject_GetAttr(logger.get(), names.debug));
    if (!debug) return failed(line);
    const Ref message = Ref::steal(PyUnicode_FromFormat("e:%S", exception.value()));
    if (!message) return failed(line);
    const Ref done = Ref::steal(PyObject_CallOneArg(debug.get(), message.get()));
    return done || failed(line);
}

Ref merged(PyObject *older, PyObject *newer) {
    const Ref arguments = Ref::steal(PyTuple_Pack(1, older));
    if (!arguments) return {};
    return Ref::steal(
        PyObject_Call(reinterpret_cast<PyObject *>(&PyDict_Type), arguments.get(), newer));
}

namespace {

Ref new_rare_key(Slice text, const Strings &strings) {
    const Ref written = strings.make(text);
    if (!written) return {};
    const Ref lowered = Ref::steal(PyObject_CallMethodNoArgs(written.get(), names.lower));
    if (!lowered) return {};
    return replaced(lowered.get(), state.constants.replace_blanks);
}

// What each ASCII character becomes in a key.
struct KeyCharacters {
    char of[128] = {};

    constexpr KeyCharacters() {
        for (int i = 0; i < 128; ++i) of[i] = static_cast<char>(i);
        for (int i = 'A'; i <= 'Z'; ++i) of[i] = static_cast<char>(i + ('a' - 'A'));
        of[int{' '}] = '_';
    }
};
constexpr KeyCharacters key_characters;

// text.strip().lower().replace(" ", "_"). A key is a short ASCII text in general, and is worked on
// before it becomes an object.
Ref new_key(Slice text, Strings &strings) {
    text = stripped(text);
    if (!strings.ascii() || text.size() > Strings::longest) return new_rare_key(text, strings);
    char key[Strings::longest];
    char *end = key;
    for (const char *at = text.begin; at != text.end; ++at) *end++ = key_characters.of[int{*at}];
    return strings.make_or_repeat({key, end});
}

// text.strip().replace("packets", "")
Ref new_value(Slice text, Strings &strings) {
    text = stripped(text);
    if (text.size() > Strings::longest) {
        const Ref value = strings.make(text);
        return value ? removed(value.get(), state.constants.remove_packets) : Ref();
    }
    char value[Strings::longest];
    return strings.make_or_repeat({value, copy_without(text, Slice(packets_word), value)});
}

// The session that a text is parsed into. Each step returns false with an exception and its entry.
class Parser {
public:
    Parser(Slice text, Lines lines, Strings &strings)
        : text_(text), lines_(lines), strings_(strings) {}

    bool parse() {
        namespace at = line::get_bfd_neighbor;
        session_ = Ref::steal(PyDict_New());
        if (!session_) return failed(at::session);
        // The line after the skipped ones is asked for even if there is none.
        Slice line;
        if (!lines_.next(line)) {
            index_error(at::line);
            return logged(at::log);
        }
        do {
            if (!parse_line(left_stripped(line)) && !logged(at::log)) return false;
        } while (lines_.next(line));
        return true;
    }

    // Stores the session under its name, merged with one that is there already.
    bool store_into(PyObject *list_bfd) const {
        namespace at = line::get_bfd_neighbor;
        if (!name_ || PyDict_GET_SIZE(session_.get()) == 0) return true;
        const int known = PySequence_Contains(list_bfd, name_.get());
        if (known < 0) return failed(at::known);
        if (!known) {
            return PyObject_SetItem(list_bfd, name_.get(), session_.get()) == 0 ||
                   failed(at::store);
        }
        const Ref older = Ref::steal(PyObject_GetItem(list_bfd, name_.get()));
        if (!older) return failed(at::merge);
        const Ref both = merged(older.get(), session_.get());
        if (!both) return failed(at::merge);
        return PyObject_SetItem(list_bfd, name_.get(), both.get()) == 0 || failed(at::merge);
    }

private:
    bool parse_line(Slice line) {
        namespace at = line::get_bfd_neighbor;
        if (is_header(line)) return parse_header(line);
        if (starts_with(line, Slice("Local timers"))) {
            return parse_timers(names.local_timers, at::local_timers);
        }
        if (starts_with(line, Slice("Remote timers"))) {
            return parse_timers(names.remote_timers, at::remote_timers);
        }
        return parse_field(line);
    }

    // "peer " in line. Looked for in all the lines ahead at once.
    bool is_header(Slice line) {
        if (!peer_ || peer_ < line.begin) peer_ = find({line.begin, text_.end}, Slice("peer "));
        return peer_ < line.end;
    }

    // A second header asks whether the type `list` contains the session, which no type answers: the
    // first session goes on collecting the lines of all others.
    bool parse_header(Slice line) {
        namespace at = line::get_bfd_neighbor;
        if (name_ && PyDict_GET_SIZE(session_.get()) > 0) {
            auto *type = reinterpret_cast<PyObject *>(&PyList_Type);
            return PySequence_Contains(type, name_.get()) >= 0 || failed(at::header_again);
        }
        Slice words[4];
        const int count = split(line, ' ', words);
        if (count < 2) return index_error(at::neighbor_ip);
        const Slice neighbor_ip = words[1];
        if (!put(names.neighbor_ip, strings_.make(neighbor_ip), at::neighbor_ip)) return false;
        if (count < 4) return index_error(at::interface);
        const Slice interface = words[3];
        if (!put(names.interface, strings_.make(right_stripped(interface)), at::interface))
            return false;
        name_ = strings_.join(neighbor_ip, Slice("_"), interface);
        if (!name_) return failed(at::session_name);
        return put(names.name, Ref::borrow(name_.get()), at::header_name);
    }

    // The three lines after a timers line, which they are read on from only if all are well.
    bool parse_timers(PyObject *key, const line::get_bfd_neighbor::Timers &at) {
        Lines lines = lines_;
        const Ref timers = Ref::steal(PyDict_New());
        if (!timers) return failed(at.create);
        for (int i = 0; i < 3; ++i) {
            Slice line;
            if (!lines.next(line)) return index_error(at.split);
            Slice val[2];
            if (split(line, ':', val) < 2) return index_error(at.store);
            const Ref value = strings_.make_or_repeat(stripped(val[1]));
            if (!value || !put_into(timers, new_key(val[0], strings_), value))
                return failed(at.store);
        }
        if (!put(key, timers, at.keep)) return false;
        lines_ = lines;
        return true;
    }

    bool parse_field(Slice line) {
        namespace at = line::get_bfd_neighbor;
        Slice val[2];
        if (split(line, ':', val) < 2) return true;  // no key-value line
        const Ref value = new_value(val[1], strings_);
        if (!value) return failed(at::value);
        return put_into(session_, new_key(val[0], strings_), value) || failed(at::field);
    }

    bool put(PyObject *key, const Ref &value, int line) {
        return (value && PyDict_SetItem(session_.get(), key, value.get()) == 0) || failed(line);
    }

    static bool put_into(const Ref &dictionary, const Ref &key, const Ref &value) {
        return key && PyDict_SetItem(dictionary.get(), key.get(), value.get()) == 0;
    }

    Slice text_;
    Lines lines_;
    Strings &strings_;
    const char *peer_ = nullptr;  // the next of them; none looked for yet
    Ref session_;
    Ref name_;  // none before the first header
};

// The first two lines are never parsed. Of an output that names no object one line is skipped only:
// it gets a line break put before it, which a `str` need not be copied for.
int skipped_lines(PyObject *text, bool named) { return named || !PyUnicode_Check(text) ? 2 : 1; }

// Whether the characters before `at`, back to `begin` or a line break, are all white space.
bool only_space_before(const char *at, const char *begin) {
    while (at != begin && at[-1] != '\n') {
        if (!is_space(--at)) return false;
    }
    return true;
}

// Whether a line has a tab after its first word. The tabs before it are stripped with the other
// white space. Before the last such tab there is nothing to look at again: the scan is linear.
bool has_inner_tab(Slice text) {
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
    const Text opened = open(text);
    if (!opened.owner) return {};
    return has_inner_tab(opened.all) ? replaced(text, state.constants.remove_tabs)
                                     : Ref::borrow(text);
}

// The text as the parser reads it. What is no text meets the same operators, until one refuses it.
// Null with an exception and its entry.
Ref prepared(PyObject *output, bool named) {
    namespace at = line::get_bfd_neighbor;
    Ref text = Ref::borrow(output);
    if (!named && !PyUnicode_Check(output)) {
        text = Ref::steal(PyNumber_Add(names.newline, output));
        if (!text) return failed(at::prefix);
    }
    if (!is_text(text.get(), names.split, state.constants.newline)) return failed(at::split);
    text = without_tabs(text.get());
    return text ? std::move(text) : failed(at::split);
}

}  // namespace

PyObject *get_bfd_neighbor(PyObject *cmd, PyObject *list_bfd) {
    namespace at = line::get_bfd_neighbor;
    const Ref output = command_text(cmd);
    if (!output) return failed(at::output);
    const int peers = PySequence_Contains(output.get(), names.peer);
    if (peers < 0) return failed(at::peer);
    if (!peers) return Ref::borrow(list_bfd).release();
    const int named = PySequence_Contains(output.get(), names.objname);
    if (named < 0) return failed(at::objname);
    const Ref lines_of = prepared(output.get(), named);
    if (!lines_of) return nullptr;
    const Text text = open(lines_of.get());
    if (!text.owner) return failed(at::split);

    Lines lines(text.all);
    Slice line;
    for (int i = skipped_lines(output.get(), named); i > 0; --i) lines.next(line);
    Strings strings(text);
    Parser parser(text.all, lines, strings);
    if (!parser.parse() || !parser.store_into(list_bfd)) return nullptr;
    return Ref::borrow(list_bfd).release();
}

}  // namespace modules_util
