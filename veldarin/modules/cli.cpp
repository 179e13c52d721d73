// Runs a command through the native runner and removes pager prompts from its output.
#include "veldarin/modules/cli.h"

#include "veldarin/modules/interned.h"
#include "veldarin/modules/native_services.h"
#include "veldarin/modules/python/errors.h"
#include "veldarin/modules/python/globals.h"
#include "veldarin/modules/python/traceback.h"
#include "veldarin/modules/state.h"
#include "veldarin/modules/text/utf8_text.h"
#include "veldarin/modules/traceback_lines.h"

namespace modules_util {

namespace {

constexpr int command_size = 128;

// Owns a buffer from PyMem_Malloc.
struct PyMemBuffer {
    char *text;

    explicit PyMemBuffer(char *owned) : text(owned) {}
    ~PyMemBuffer() { PyMem_Free(text); }
    PyMemBuffer(const PyMemBuffer &) = delete;
    PyMemBuffer &operator=(const PyMemBuffer &) = delete;
};

// function(object, _CHARSET), for text_ and bytes_.
Ref convert(const Ref &function, PyObject *object) {
    const Ref charset = global(id::charset_global);
    if (!charset) return {};
    return call(function, object, charset.get());
}

// Encodes the command into a buffer of command_size bytes, which may truncate it.
bool encode(PyObject *cmd_s, char *cmd) {
    const Ref bytes_ = global(id::bytes_);
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
    const Ref text_ = global(id::text_);
    if (!text_) return {};
    const Ref bytes = Ref::steal(PyBytes_FromString(output));
    if (!bytes) return {};
    return convert(text_, bytes.get());
}

// text.replace("--More--", "")
Ref strip_pager(PyObject *text) {
    PyObject *pair = state.constants.replace_args.pager_prompt;
    if (PyUnicode_CheckExact(text) && PyUnicode_IS_READY(text)) return str_remove(text, pair);
    const Ref replace = Ref::steal(PyObject_GetAttr(text, interned[id::replace]));
    if (!replace) return {};
    return Ref::steal(PyObject_Call(replace.get(), pair, nullptr));
}

}  // namespace

PyObject *get_cli_command_output(PyObject *cmd_s) {
    namespace at = source_line::get_cli_command_output;
    char cmd[command_size];
    if (!encode(cmd_s, cmd)) return fail(at::encode);
    const PyMemBuffer output(get_cli_cmd_output(nullptr, cmd));
    if (!output.text) {
        raise_from_global(id::CFunctionError, interned[id::no_cli_output]);
        return fail(at::no_output);
    }
    const Ref text = decode(output.text);
    if (!text) return fail(at::decode);
    Ref result = strip_pager(text.get());
    return result ? result.release() : fail(at::replace);
}

Ref run_command(PyObject *command) {
    const Ref text_ = global(id::text_);
    if (!text_) return {};
    const Ref output = call_global(id::get_cli_command_output, command);
    if (!output) return {};
    return convert(text_, output.get());
}

}  // namespace modules_util
