// Runs a command through the native runner and cleans its output.
#include "cli.h"

#include "lines.h"
#include "runtime/errors.h"
#include "runtime/globals.h"
#include "runtime/names.h"
#include "runtime/state.h"
#include "runtime/text.h"
#include "runtime/traceback.h"
#include "services.h"

namespace modules_util {

namespace {

constexpr int command_size = 128;

// What the native runner has handed over; freed on every path.
struct Output {
    char *text;

    explicit Output(char *owned) : text(owned) {}
    ~Output() { PyMem_Free(text); }
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
};

// function(object, _CHARSET): the text and byte conversions.
Ref convert(const Ref &function, PyObject *object) {
    const Ref charset = global(names.CHARSET);
    if (!charset) return {};
    PyObject *const arguments[] = {object, charset.get()};
    return Ref::steal(PyObject_VectorcallDict(function.get(), arguments, 2, nullptr));
}

// The command in the module's character set, cut to the buffer.
bool encode(PyObject *cmd_s, char *cmd) {
    const Ref bytes_ = global(names.bytes_);
    if (!bytes_) return false;
    const Ref encoded = convert(bytes_, cmd_s);
    if (!encoded) return false;
    const char *contents = nullptr;
    if (PyBytes_Check(encoded.get())) {
        contents = PyBytes_AS_STRING(encoded.get());
    } else if (PyByteArray_Check(encoded.get())) {
        contents = PyByteArray_AS_STRING(encoded.get());
    } else {
        raise_not_bytes(encoded.get());
        return false;
    }
    state.imports.strtcpy(cmd, command_size, contents);
    return true;
}

Ref decode(const char *output) {
    const Ref text_ = global(names.text_);
    if (!text_) return {};
    const Ref bytes = Ref::steal(PyBytes_FromString(output));
    if (!bytes) return {};
    return convert(text_, bytes.get());
}

// text.replace("--More--", "")
Ref without_pager(PyObject *text) {
    if (PyUnicode_CheckExact(text) && PyUnicode_IS_READY(text)) {
        return removed(text, state.constants.remove_pager);
    }
    const Ref replace = Ref::steal(PyObject_GetAttr(text, names.replace));
    if (!replace) return {};
    return Ref::steal(PyObject_Call(replace.get(), state.constants.remove_pager, nullptr));
}

}  // namespace

PyObject *get_cli_command_output(PyObject *cmd_s) {
    namespace at = line::get_cli_command_output;
    char cmd[command_size];
    if (!encode(cmd_s, cmd)) return failed(at::encode);
    const Output output(get_cli_cmd_output(nullptr, cmd));
    if (!output.text) {
        raise_global(names.CFunctionError, names.no_cli_output);
        return failed(at::failed);
    }
    const Ref text = decode(output.text);
    if (!text) return failed(at::decode);
    Ref result = without_pager(text.get());
    return result ? result.release() : failed(at::replace);
}

Ref command_text(PyObject *command) {
    const Ref text_ = global(names.text_);
    if (!text_) return {};
    const Ref output = call_global(names.get_cli_command_output, command);
    if (!output) return {};
    return convert(text_, output.get());
}

}  // namespace modules_util
