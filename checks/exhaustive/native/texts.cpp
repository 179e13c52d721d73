// Compares the text layer with the methods of `str`, for every text over an alphabet.
//
// Each text ends where its page ends, and the next page cannot be accessed: an overread crashes.
#include <Python.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/text/scan.h"
#include "veldarin/modules/text/string_cache.h"
#include "veldarin/modules/text/utf8_text.h"

namespace {

using namespace modules_util;

constexpr int max_length = 64;
constexpr int max_fields = max_length + 1;

// The patterns that the parsers search or remove, and shorter ones of the alphabet.
constexpr const char *patterns[] = {":", ",", "p", "pp", ", ", ":p", "\t", "\r", "peer "};
constexpr int pattern_count = sizeof patterns / sizeof *patterns;
constexpr char separators[] = {':', ',', ' ', '\n', 'p'};

// Objects that every comparison needs; made once, never released.
PyObject *pattern_strings[pattern_count];
PyObject *separator_strings[sizeof separators];
PyObject *newline, *empty, *strip, *lstrip, *rstrip;

char *page_end;  // the end of the page that can be accessed

// ------------------------------------------------------------------ texts

// A text in every form: as a string, and as UTF-8 at the end of the page.
struct Sample {
    Ref string;
    TextView view;
};

char *encode(Py_UCS4 character, char *to) {
    const auto put = [&to](Py_UCS4 byte) { *to++ = static_cast<char>(byte); };
    if (character < 0x80) {
        put(character);
    } else if (character < 0x800) {
        put(0xC0 | character >> 6);
        put(0x80 | (character & 0x3F));
    } else if (character < 0x10000) {
        put(0xE0 | character >> 12);
        put(0x80 | (character >> 6 & 0x3F));
        put(0x80 | (character & 0x3F));
    } else {
        put(0xF0 | character >> 18);
        put(0x80 | (character >> 12 & 0x3F));
        put(0x80 | (character >> 6 & 0x3F));
        put(0x80 | (character & 0x3F));
    }
    return to;
}

// `beyond` bytes stay between the end of the text and the end of the page.
bool prepare(const Py_UCS4 *characters, int length, int beyond, Sample &sample) {
    sample.string = Ref::steal(PyUnicode_FromKindAndData(PyUnicode_4BYTE_KIND, characters, length));
    if (!sample.string) return false;
    char bytes[4 * max_length];
    char *end = bytes;
    for (int i = 0; i < length; ++i) end = encode(characters[i], end);
    const auto size = static_cast<size_t>(end - bytes);
    char *const begin = page_end - beyond - size;
    std::memcpy(begin, bytes, size);
    sample.view = {begin, begin + size};
    return true;
}

// ------------------------------------------------------------------ comparisons

bool fail(const char *function, const Sample &sample, PyObject *expected) {
    PyErr_Format(PyExc_AssertionError, "%s of %A: expected %A", function, sample.string.get(),
                 expected);
    return false;
}

bool equals(TextView view, PyObject *string) {
    const auto kind = PyUnicode_KIND(string);
    const void *const data = PyUnicode_DATA(string);
    const Py_ssize_t length = PyUnicode_GET_LENGTH(string);
    const char *at = view.begin;
    for (Py_ssize_t i = 0; i < length; ++i) {
        if (at >= view.end || next_code_point(at) != PyUnicode_READ(kind, data, i)) return false;
    }
    return at == view.end;
}

bool equals(const TextView *views, int count, PyObject *list) {
    if (count != PyList_GET_SIZE(list)) return false;
    for (int i = 0; i < count; ++i) {
        if (!equals(views[i], PyList_GET_ITEM(list, i))) return false;
    }
    return true;
}

// Compares all fields, and the same limited to two, as most callers want them.
template <typename Split>
bool check_fields(const char *function, const Sample &sample, const Ref &expected,
                  Split &&split_to) {
    if (!expected) return false;
    TextView fields[max_fields];
    TextView first[2];
    const auto limited = static_cast<int>(std::min<Py_ssize_t>(2, PyList_GET_SIZE(expected.get())));
    if (!equals(fields, split_to(fields, max_fields), expected.get()) ||
        split_to(first, 2) != limited) {
        return fail(function, sample, expected.get());
    }
    for (int i = 0; i < limited; ++i) {
        if (!equals(first[i], PyList_GET_ITEM(expected.get(), i))) {
            return fail(function, sample, expected.get());
        }
    }
    return true;
}

bool check_splits(const Sample &sample) {
    PyObject *const string = sample.string.get();
    const auto by_space = [&](TextView *fields, int most) {
        return split(sample.view, fields, most);
    };
    const Ref words = Ref::steal(PyUnicode_Split(string, nullptr, -1));
    if (!check_fields("split()", sample, words, by_space)) return false;
    for (size_t i = 0; i < sizeof separators; ++i) {
        const auto by_character = [&](TextView *fields, int most) {
            return split(sample.view, separators[i], fields, most);
        };
        const Ref parts = Ref::steal(PyUnicode_Split(string, separator_strings[i], -1));
        if (!check_fields("split(separator)", sample, parts, by_character)) return false;
    }
    const auto read_lines = [&](TextView *fields, int most) {
        LineReader lines(sample.view);
        int count = 0;
        while (count < most && lines.next(fields[count])) ++count;
        return count;
    };
    const Ref lines = Ref::steal(PyUnicode_Split(string, newline, -1));
    return check_fields("lines", sample, lines, read_lines);
}

bool check_strip(const char *function, const Sample &sample, PyObject *method, TextView view) {
    const Ref expected = Ref::steal(PyObject_CallOneArg(method, sample.string.get()));
    return expected && (equals(view, expected.get()) || fail(function, sample, expected.get()));
}

bool check_strips(const Sample &sample) {
    return check_strip("strip", sample, strip, stripped(sample.view)) &&
           check_strip("lstrip", sample, lstrip, left_stripped(sample.view)) &&
           check_strip("rstrip", sample, rstrip, right_stripped(sample.view));
}

// The number of characters before `at`, or the length if `at` is the end: the result of str.find.
Py_ssize_t index_of(const Sample &sample, const char *at) {
    if (at == sample.view.end) return -1;
    Py_ssize_t index = 0;
    for (const char *each = sample.view.begin; each < at; ++index) next_code_point(each);
    return index;
}

bool check_pattern(const Sample &sample, int i) {
    PyObject *const string = sample.string.get();
    PyObject *const pattern = pattern_strings[i];
    const TextView wanted{patterns[i], patterns[i] + std::strlen(patterns[i])};
    const Py_ssize_t index = PyUnicode_Find(string, pattern, 0, PY_SSIZE_T_MAX, 1);
    if (index == -2) return false;
    if (index_of(sample, find(sample.view, wanted)) != index ||
        (wanted.size() == 1 && index_of(sample, find(sample.view, *wanted.begin)) != index)) {
        return fail("find", sample, pattern);
    }
    const Py_ssize_t prefix = PyUnicode_Tailmatch(string, pattern, 0, PY_SSIZE_T_MAX, -1);
    if (prefix < 0) return false;
    if (starts_with(sample.view, wanted) != (prefix == 1))
        return fail("startswith", sample, pattern);

    const Ref expected = Ref::steal(PyUnicode_Replace(string, pattern, empty, -1));
    if (!expected) return false;
    char remaining[4 * max_length];
    const char *const end = copy_without(sample.view, wanted, remaining);
    return equals({remaining, end}, expected.get()) || fail("replace", sample, expected.get());
}

// The conversions between strings and UTF-8.
bool check_strings(const Sample &sample) {
    const Utf8Text text = as_utf8(sample.string.get());
    if (!text.owner) return false;
    if (!equals(text.view, sample.string.get()))
        return fail("as_utf8", sample, sample.string.get());
    StringCache strings(text);
    const Ref again = strings.make(text.view);
    const Ref cached = strings.make_cached(text.view);
    const Ref joined = strings.join(text.view, TextView(":"), text.view);
    if (!again || !cached || !joined) return false;
    const Ref expected =
        Ref::steal(PyUnicode_FromFormat("%U:%U", sample.string.get(), sample.string.get()));
    if (!expected) return false;
    for (const Ref *each : {&again, &cached}) {
        if (PyUnicode_Compare(each->get(), sample.string.get()) != 0) {
            return fail("make", sample, sample.string.get());
        }
    }
    return PyUnicode_Compare(joined.get(), expected.get()) == 0 ||
           fail("join", sample, expected.get());
}

bool check_sample(const Sample &sample) {
    if (!check_splits(sample) || !check_strips(sample)) return false;
    for (int i = 0; i < pattern_count; ++i) {
        if (!check_pattern(sample, i)) return false;
    }
    return check_strings(sample);
}

// ------------------------------------------------------------------ functions of the module

// check_texts(alphabet, length, first, last): checks the texts of that length whose numbers, in the
// alphabet as digits, are in the range.
PyObject *check_texts(PyObject *, PyObject *arguments) {
    PyObject *alphabet = nullptr;
    int length = 0;
    unsigned long long first = 0;
    unsigned long long last = 0;
    if (!PyArg_ParseTuple(arguments, "UiKK", &alphabet, &length, &first, &last)) return nullptr;
    if (length > max_length) return PyErr_Format(PyExc_ValueError, "at most %d", max_length);
    const auto base = static_cast<unsigned long long>(PyUnicode_GET_LENGTH(alphabet));
    for (unsigned long long number = first; number < last; ++number) {
        Py_UCS4 characters[max_length];
        unsigned long long rest = number;
        for (int i = 0; i < length; ++i) {
            characters[i] = PyUnicode_READ_CHAR(alphabet, static_cast<Py_ssize_t>(rest % base));
            rest /= base;
        }
        Sample sample;
        if (!prepare(characters, length, 0, sample) || !check_sample(sample)) return nullptr;
    }
    return PyLong_FromUnsignedLongLong(last - first);
}

// check_alignments(fill, other): checks texts of up to 40 times `fill` with `other` at each place,
// at each offset from the end of the page: every alignment of the words that the scanner reads.
PyObject *check_alignments(PyObject *, PyObject *arguments) {
    int fill = 0;
    int other = 0;
    if (!PyArg_ParseTuple(arguments, "CC", &fill, &other)) return nullptr;
    long checked = 0;
    for (int beyond = 0; beyond < 16; ++beyond) {
        for (int length = 0; length <= 40; ++length) {
            for (int place = 0; place <= length; ++place) {
                Py_UCS4 characters[max_length];
                std::fill_n(characters, length, static_cast<Py_UCS4>(fill));
                if (place < length) characters[place] = static_cast<Py_UCS4>(other);
                Sample sample;
                // What follows the text must not matter.
                std::memset(page_end - 16, beyond % 2 ? ' ' : 'p', 16);
                if (!prepare(characters, length, beyond, sample) || !check_sample(sample)) {
                    return nullptr;
                }
                ++checked;
            }
        }
    }
    return PyLong_FromLong(checked);
}

PyMethodDef methods[] = {
    {"check_texts",      check_texts,      METH_VARARGS, nullptr},
    {"check_alignments", check_alignments, METH_VARARGS, nullptr},
    {nullptr,            nullptr,          0,            nullptr},
};

bool make_page() {
    const long size = sysconf(_SC_PAGESIZE);
    const auto bytes = static_cast<size_t>(size);
    void *pages =
        mmap(nullptr, 2 * bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED ||
        mprotect(static_cast<char *>(pages) + bytes, bytes, PROT_NONE) != 0) {
        PyErr_SetFromErrno(PyExc_OSError);
        return false;
    }
    page_end = static_cast<char *>(pages) + bytes;
    return true;
}

bool make_objects() {
    auto *const type = reinterpret_cast<PyObject *>(&PyUnicode_Type);
    for (int i = 0; i < pattern_count; ++i) {
        if (!(pattern_strings[i] = PyUnicode_FromString(patterns[i]))) return false;
    }
    for (size_t i = 0; i < sizeof separators; ++i) {
        if (!(separator_strings[i] = PyUnicode_FromStringAndSize(separators + i, 1))) return false;
    }
    return (newline = PyUnicode_FromString("\n")) && (empty = PyUnicode_New(0, 0)) &&
           (strip = PyObject_GetAttrString(type, "strip")) &&
           (lstrip = PyObject_GetAttrString(type, "lstrip")) &&
           (rstrip = PyObject_GetAttrString(type, "rstrip"));
}

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "exhaustive_texts",
    nullptr,
    -1,
    methods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

PyMODINIT_FUNC PyInit_exhaustive_texts() {
    return make_page() && make_objects() ? PyModule_Create(&definition) : nullptr;
}
