/* A plugin of the emulator, QEMU 7, that counts the executed instructions of a MIPS program. At
 * each of the program's requests of callgrind (valgrind/valgrind.h), which do nothing outside
 * valgrind, it writes a line to the file OUTPUT: the request's address and the number of
 * instructions before it.
 *
 *   qemu-mips -plugin count_instructions.so,output=OUTPUT PROGRAM */
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

/* Debian has no package with the header, qemu-plugin.h. */
typedef uint64_t qemu_plugin_id_t;
struct qemu_info;
struct qemu_plugin_insn;
struct qemu_plugin_tb;
enum { QEMU_PLUGIN_VERSION = 1, QEMU_PLUGIN_CB_NO_REGS = 0, QEMU_PLUGIN_INLINE_ADD_U64 = 0 };
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*callback)(qemu_plugin_id_t,
                                                            struct qemu_plugin_tb *));
void qemu_plugin_register_vcpu_insn_exec_inline(struct qemu_plugin_insn *insn, int operation,
                                                void *counter, uint64_t addend);
void qemu_plugin_register_vcpu_insn_exec_cb(struct qemu_plugin_insn *insn,
                                            void (*callback)(unsigned, void *), int flags,
                                            void *context);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *tb);
struct qemu_plugin_insn *qemu_plugin_tb_get_insn(const struct qemu_plugin_tb *tb, size_t index);
const void *qemu_plugin_insn_data(const struct qemu_plugin_insn *insn);
uint64_t qemu_plugin_insn_vaddr(const struct qemu_plugin_insn *insn);

/* "or $13, $13, $13", the request; no compiler generates this instruction. */
static const unsigned char request[] = {0x01, 0xAD, 0x68, 0x25};

static FILE *output;
static uint64_t executed;

/* The emulator calls this before it counts the request itself. */
static void write_count(unsigned processor, void *address) {
    (void)processor;
    fprintf(output, "%" PRIxPTR " %" PRIu64 "\n", (uintptr_t)address, executed);
}

static void translate(qemu_plugin_id_t id, struct qemu_plugin_tb *tb) {
    (void)id;
    const size_t length = qemu_plugin_tb_n_insns(tb);
    for (size_t i = 0; i < length; ++i) {
        struct qemu_plugin_insn *insn = qemu_plugin_tb_get_insn(tb, i);
        qemu_plugin_register_vcpu_insn_exec_inline(insn, QEMU_PLUGIN_INLINE_ADD_U64, &executed, 1);
        if (memcmp(qemu_plugin_insn_data(insn), request, sizeof request) == 0) {
            const uintptr_t address = qemu_plugin_insn_vaddr(insn);
            qemu_plugin_register_vcpu_insn_exec_cb(insn, write_count, QEMU_PLUGIN_CB_NO_REGS,
                                                   (void *)address);
        }
    }
}

int qemu_plugin_version = QEMU_PLUGIN_VERSION;

int qemu_plugin_install(qemu_plugin_id_t id, const struct qemu_info *info, int argc, char **argv) {
    static const char name[] = "output=";
    (void)info;
    if (argc != 1 || strncmp(argv[0], name, strlen(name)) != 0) return -1;
    output = fopen(argv[0] + strlen(name), "w");
    if (output == NULL) return -1;
    setvbuf(output, NULL, _IOLBF, 0); /* the emulator ends without closing it */
    qemu_plugin_register_vcpu_tb_trans_cb(id, translate);
    return 0;
}
