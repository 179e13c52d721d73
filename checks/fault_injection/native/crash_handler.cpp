// What a process that dies says before: the functions that it dies in, innermost first, as the
// loader knows them. checks/fault_injection/crashes.py reads it.
#include <execinfo.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>

#include "call_site_log.h"
#include "faults.h"

namespace faults {
namespace {

constexpr int signals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr int most_frames = 64;

struct sigaction before[NSIG];
char own_stack[64 * 1024];  // a stack that has run over cannot tell its own end

template <size_t size>
void say(const char (&text)[size]) {
    if (write(STDERR_FILENO, text, size - 1) < 0) _exit(1);
}

void say_text(const char *text) {
    size_t length = 0;
    while (text[length]) ++length;
    if (write(STDERR_FILENO, text, length) < 0) _exit(1);
}

void tell(int number) {
    void *frames[most_frames];
    const int count = backtrace(frames, most_frames);
    say("died in the call: ");
    const char *call = call_under_way();
    say_text(call == nullptr ? "none" : call);
    say("\ndied in the functions:\n");
    backtrace_symbols_fd(frames, count, STDERR_FILENO);
    say("died.\n");
    sigaction(number, &before[number], nullptr);
    raise(number);  // once this handler is left
}

}  // namespace
}  // namespace faults

using namespace faults;

void faults_tell_deaths() {
    void *frame = nullptr;
    backtrace(&frame, 1);  // loads what it needs, while there is memory
    stack_t stack{};
    stack.ss_sp = own_stack;
    stack.ss_size = sizeof own_stack;
    sigaltstack(&stack, nullptr);
    for (const int number : signals) {
        struct sigaction action{};
        action.sa_handler = tell;
        action.sa_flags = SA_ONSTACK;
        sigaction(number, &action, &before[number]);
    }
}
