// Before a process dies of a signal it prints its stack and the fallible call that was running;
// checks/fault_injection/forks.py parses the output.
#include <execinfo.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstring>

#include "call_site_log.h"

namespace faults {
namespace {

constexpr int signals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr int max_frames = 64;

struct sigaction previous[NSIG];
char signal_stack[64 * 1024];  // for stack overflows

void print(const char *text) {
    if (write(STDERR_FILENO, text, std::strlen(text)) < 0) _exit(1);
}

void handle(int number) {
    void *frames[max_frames];
    const int count = backtrace(frames, max_frames);
    const faults_row *row = current_row();
    print("crashed in call: ");
    print(row == nullptr ? "none" : row->key);
    print("\nstack:\n");
    backtrace_symbols_fd(frames, count, STDERR_FILENO);
    print("end of stack\n");
    sigaction(number, &previous[number], nullptr);
    raise(number);  // takes effect when this handler returns
}

}  // namespace
}  // namespace faults

using namespace faults;

void faults_install_crash_handler() {
    void *frame = nullptr;
    backtrace(&frame, 1);  // loads libgcc now, while memory is available
    stack_t stack{};
    stack.ss_sp = signal_stack;
    stack.ss_size = sizeof signal_stack;
    sigaltstack(&stack, nullptr);
    for (const int number : signals) {
        struct sigaction action{};
        action.sa_handler = handle;
        action.sa_flags = SA_ONSTACK;
        sigaction(number, &action, &previous[number]);
    }
}
