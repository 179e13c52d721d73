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
#include "runtime/text.h"
#include "runtime/traceback.h"

namespace modules_util {

namespace {

// except Exception as e: _logger.debug("e:" + str(e)). False, with the exception that goes on: not
// an Exception, or one of the logging, with an entry at `line`.
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

// text.strip().lower().replace(" ", "_"). A key is a short ASCII text in general, and is worked on
// before it becomes an object.
template <typename Char>
Ref new_key(Slice<Char> text) {
    const Ref written = to_str(stripped(text));
    if (!written) return {};
    const Ref lowered = Ref::steal(PyObject_CallMethodNoArgs(written.get(), names.lower));
    if (!lowered) return {};
    return replaced(lowered.get(), state.constants.replace_blanks);
}
template <typename Char>
Ref new_key(Slice<Char> text, Pool<Char> &) {
    return new_key(text);
}
Ref new_key(Slice<char> text, Pool<char> &pool) {
    text = stripped(text);
    if (text.size() > Pool<char>::longest) return new_key(text);
    char key[Pool<char>::longest];
    char *end = key;
    for (const char *at = text.begin; at != text.end; ++at) {
        const char character =
            *at >= 'A' && *at <= 'Z' ? static_cast<char>(*at + ('a' - 'A')) : *at;
        *end++ = character == ' ' ? '_' : character;
    }
    return pool.short_str({key, end});
}

// text.strip().replace("packets", "")
template <typename Char>
Ref new_value(Slice<Char> text, Pool<Char> &) {
    const Ref value = to_str(stripped(text));
    return value ? replaced(value.get(), state.constants.remove_packets) : Ref();
}
Ref new_value(Slice<char> text, Pool<char> &pool) {
    text = stripped(text);
    if (text.size() > Pool<char>::longest) {
        const Ref value = to_str(text);
        return value ? without(value.get(), packets_word) : Ref();
    }
    char value[Pool<char>::longest];
    return pool.short_str({value, value + copy_without(text, packets_word, value)});
}

// session = dict(older, **session): the older session updated by this one.
Ref merged(PyObject *older, PyObject *session) {
    const Ref arguments = Ref::steal(PyTuple_Pack(1, older));
    if (!arguments) return {};
    return Ref::steal(
        PyObject_Call(reinterpret_cast<PyObject *>(&PyDict_Type), arguments.get(), session));
}

// The session that a text is parsed into. Each step returns false with an exception and its entry.
template <typename Char>
class Parser {
    using Line = Slice<Char>;
    using Lines = Fields<Char>;

public:
    explicit Parser(Lines lines) : lines_(lines) {}

    bool parse() {
        namespace at = line::get_bfd_neighbor;
        session_ = Ref::steal(PyDict_New());
        if (!session_) return failed(at::session);
        // The line after the skipped ones is asked for even if there is none.
        Line line;
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
    bool parse_line(Line line) {
        namespace at = line::get_bfd_neighbor;
        if (contains(line, "peer ")) return parse_header(line);
        if (starts_with(line, "Local timers")) {
            return parse_timers(names.local_timers, at::local_timers);
        }
        if (starts_with(line, "Remote timers")) {
            return parse_timers(names.remote_timers, at::remote_timers);
        }
        return parse_field(line);
    }

    // A second header asks whether the type `list` contains the session, which no type answers: the
    // first session goes on collecting the lines of all others.
    bool parse_header(Line line) {
        namespace at = line::get_bfd_neighbor;
        if (name_ && PyDict_GET_SIZE(session_.get()) > 0) {
            auto *type = reinterpret_cast<PyObject *>(&PyList_Type);
            return PySequence_Contains(type, name_.get()) >= 0 || failed(at::header_again);
        }
        const Lines words(line, ' ');
        Line neighbor_ip;
        Line interface;
        if (!element(words, 1, neighbor_ip)) return index_error(at::neighbor_ip);
        if (!put(names.neighbor_ip, to_str(neighbor_ip), at::neighbor_ip)) return false;
        if (!element(words, 3, interface)) return index_error(at::interface);
        if (!put(names.interface, to_str(right_stripped(interface)), at::interface)) return false;
        name_ = joined(neighbor_ip, "_", interface);
        if (!name_) return failed(at::session_name);
        return put(names.name, Ref::borrow(name_.get()), at::header_name);
    }

    // The three lines after a timers line, which they are read on from only if all are well.
    bool parse_timers(PyObject *key, const line::get_bfd_neighbor::Timers &at) {
        Lines lines = lines_;
        const Ref timers = Ref::steal(PyDict_New());
        if (!timers) return failed(at.create);
        for (int i = 0; i < 3; ++i) {
            Line line;
            if (!lines.next(line)) return index_error(at.split);
            Lines parts(line, ':');
            Line name;
            Line text;
            parts.next(name);  // there is always a first field
            if (!parts.next(text)) return index_error(at.store);
            const Ref value = pool_.to_str(stripped(text));
            if (!value || !put_into(timers, new_key(name, pool_), value)) return failed(at.store);
        }
        if (!put(key, timers, at.keep)) return false;
        lines_ = lines;
        return true;
    }

    bool parse_field(Line line) {
        namespace at = line::get_bfd_neighbor;
        Lines parts(line, ':');
        Line name;
        Line text;
        parts.next(name);
        if (!parts.next(text)) return true;  // no key-value line
        const Ref value = new_value(text, pool_);
        if (!value) return failed(at::value);
        return put_into(session_, new_key(name, pool_), value) || failed(at::field);
    }

    bool put(PyObject *key, const Ref &value, int line) {
        return (value && PyDict_SetItem(session_.get(), key, value.get()) == 0) || failed(line);
    }

    static bool put_into(const Ref &dictionary, const Ref &key, const Ref &value) {
        return key && PyDict_SetItem(dictionary.get(), key.get(), value.get()) == 0;
    }

    Lines lines_;
    Ref session_;
    Ref name_;  // none before the first header
    Pool<Char> pool_;
};

// The first two lines are never parsed. Of an output that names no object one line is skipped only:
// it gets a line break put before it, which a `str` need not be copied for.
int skipped_lines(PyObject *text, bool named) { return named || !PyUnicode_Check(text) ? 2 : 1; }

// Only white space stands between the line's begin and `at`.
template <typename Char>
bool leads_line(const Char *begin, const Char *at) {
    while (at != begin && at[-1] != '\n') {
        if (!is_space(*--at)) return false;
    }
    return true;
}

// A tab after the first word of a line. Those before it go with the other white space there.
template <typename Char>
bool has_inner_tab(Slice<Char> text) {
    for (Slice<Char> rest = text;; rest = left_stripped(rest)) {
        rest.begin = find(rest, tab[0]);
        if (rest.empty()) return false;
        if (!leads_line(text.begin, rest.begin)) return true;
    }
}

// The text as the parser reads it: every line without tabs. What is no text meets the same
// operators, until one refuses it. Null with an exception and its entry.
Ref prepared(PyObject *output, bool named) {
    namespace at = line::get_bfd_neighbor;
    Ref text = Ref::borrow(output);
    if (!named && !PyUnicode_Check(output)) {
        text = Ref::steal(PyNumber_Add(names.newline, output));
        if (!text) return failed(at::prefix);
    }
    if (!is_text(text.get(), names.split, state.constants.newline)) return failed(at::split);
    if (scan(text.get(), [](auto slice) { return has_inner_tab(slice); })) {
        text = replaced(text.get(), state.constants.remove_tabs);
        if (!text) return failed(at::split);
    }
    return text;
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
    const Ref text = prepared(output.get(), named);
    if (!text) return nullptr;

    const int skipped = skipped_lines(output.get(), named);
    return scan(text.get(), [skipped, list_bfd](auto slice) -> PyObject * {
        Fields lines(slice, '\n');
        decltype(slice) line;
        for (int i = 0; i < skipped; ++i) lines.next(line);
        Parser<typename decltype(slice)::Character> parser(lines);
        if (!parser.parse() || !parser.store_into(list_bfd)) return nullptr;
        return Ref::borrow(list_bfd).release();
    });
}

namespace {

// prefix + neighbor_ip + " " + interface
Ref detail_command(PyObject *prefix, PyObject *neighbor_ip, PyObject *interface) {
    const Ref with_ip = Ref::steal(PyNumber_Add(prefix, neighbor_ip));
    if (!with_ip) return {};
    const Ref with_blank = Ref::steal(PyNumber_Add(with_ip.get(), names.blank));
    if (!with_blank) return {};
    return Ref::steal(PyNumber_Add(with_blank.get(), interface));
}

// get_bfd_neighbor(<detail command>, list_bfd)
Ref detail(PyObject *prefix, PyObject *neighbor_ip, PyObject *interface, PyObject *list_bfd) {
    const Ref function = global(names.get_bfd_neighbor);
    if (!function) return {};
    const Ref command = detail_command(prefix, neighbor_ip, interface);
    if (!command) return {};
    return Ref::steal(
        PyObject_CallFunctionObjArgs(function.get(), command.get(), list_bfd, nullptr));
}

// Words the failure to take a mapping's keywords for dict(…, **mapping) as the interpreter does.
void reword_keyword_error(PyObject *mapping) {
    if (PyErr_ExceptionMatches(PyExc_AttributeError)) {
        PyErr_Format(PyExc_TypeError, "dict() argument after ** must be a mapping, not %.200s",
                     Py_TYPE(mapping)->tp_name);
    } else if (PyErr_ExceptionMatches(PyExc_KeyError)) {
        PyObject *type = nullptr;
        PyObject *value = nullptr;
        PyObject *traceback = nullptr;
        PyErr_Fetch(&type, &value, &traceback);
        // A dictionary's own look-up: the value is still the arguments, the key alone.
        const bool missing = value && PyTuple_Check(value) && PyTuple_GET_SIZE(value) == 1;
        const Ref arguments = Ref::borrow(value);
        PyErr_Restore(type, value, traceback);
        if (!missing) return;
        PyErr_Format(PyExc_TypeError, "dict() got multiple values for keyword argument '%S'",
                     PyTuple_GET_ITEM(arguments.get(), 0));
    }
}

// The keyword dictionary of dict(…, **mapping).
Ref keywords_of(PyObject *mapping) {
    if (PyDict_CheckExact(mapping)) return Ref::borrow(mapping);
    Ref keywords = Ref::steal(PyDict_New());
    if (!keywords) return {};
    if (PyDict_Update(keywords.get(), mapping) == 0) return keywords;
    reword_keyword_error(mapping);
    return {};
}

// dict(info, **info6)
Ref both_families(PyObject *info, PyObject *info6) {
    const Ref keywords = keywords_of(info6);
    return keywords ? merged(info, keywords.get()) : Ref();
}

// copy.deepcopy(object)
Ref deep_copy(PyObject *object) {
    const Ref copy = global(names.copy);
    if (!copy) return {};
    return Ref::steal(PyObject_CallMethodOneArg(copy.get(), names.deepcopy, object));
}

// sessions[key][field]
Ref session_field(PyObject *sessions, PyObject *key, PyObject *field) {
    const Ref session = Ref::steal(PyObject_GetItem(sessions, key));
    return session ? Ref::steal(PyObject_GetItem(session.get(), field)) : Ref();
}

// Appends the session to the holder if a detail output has reported it.
bool keep_reported(PyObject *holder, PyObject *list_bfd, PyObject *key) {
    namespace at = line::list_bfd_neighbor;
    const Ref session = Ref::steal(PyObject_GetItem(list_bfd, key));
    if (!session) return failed(at::filter);
    const int reported = PySequence_Contains(session.get(), names.zebra_notifications);
    if (reported < 0) return failed(at::filter);
    return !reported || PyList_Append(holder, session.get()) == 0 || failed(at::append);
}

// The details of one neighbour, of both families, merged into the working dictionary, which is
// replaced by a copy. `known` is what tells its address and interface.
bool list_neighbor(PyObject *holder, Ref &list_bfd, PyObject *known, PyObject *key) {
    namespace at = line::list_bfd_neighbor;
    const Ref neighbor_ip = session_field(known, key, names.neighbor_ip);
    if (!neighbor_ip) return failed(at::neighbor_ip);
    const Ref interface = session_field(known, key, names.interface);
    if (!interface) return failed(at::interface);
    const Ref info =
        detail(names.bfd_detail_command, neighbor_ip.get(), interface.get(), list_bfd.get());
    if (!info) return failed(at::detail);
    const Ref info6 =
        detail(names.bfd6_detail_command, neighbor_ip.get(), interface.get(), info.get());
    if (!info6) return failed(at::detail6);
    list_bfd = both_families(info.get(), info6.get());
    if (!list_bfd) return failed(at::merge_detail);
    return keep_reported(holder, list_bfd.get(), key);
}

// Fills the holder; false with an exception and its entry.
bool list_neighbors(PyObject *holder) {
    namespace at = line::list_bfd_neighbor;
    const Ref info = call_global(names.get_bfd_neighbor, names.bfd_command);
    if (!info) return failed(at::info);
    const Ref info6 = call_global(names.get_bfd_neighbor, names.bfd6_command);
    if (!info6) return failed(at::info6);
    Ref list_bfd = both_families(info.get(), info6.get());
    if (!list_bfd) return failed(at::merge);
    if (PyDict_GET_SIZE(list_bfd.get()) == 0) return true;

    const Ref known = deep_copy(list_bfd.get());
    if (!known) return failed(at::keys);
    const Ref keys = Ref::steal(PyObject_GetIter(known.get()));
    if (!keys) return failed(at::each);
    while (const Ref key = Ref::steal(PyIter_Next(keys.get()))) {
        if (!list_neighbor(holder, list_bfd, known.get(), key.get())) return false;
    }
    return !PyErr_Occurred() || failed(at::each);
}

}  // namespace

PyObject *list_bfd_neighbor() {
    namespace at = line::list_bfd_neighbor;
    Ref holder = Ref::steal(PyList_New(0));
    if (!holder) return failed(at::holder);
    if (!list_neighbors(holder.get()) && !logged(at::log)) return nullptr;
    return holder.release();
}

}  // namespace modules_util
