// The log of the module's fallible calls is a file that every process of a run maps, so that
// processes that crash contribute, too. Before a process dies of a signal it prints its stack and
// the fallible call that was running; checks/fault_injection/forks.py parses the output.
#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "faults.h"

namespace faults {
namespace {

constexpr size_t row_count = 1024;  // several times the number of call sites
constexpr size_t log_size = row_count * sizeof(faults_row);

faults_row private_rows[row_count];  // until a file is mapped
faults_row *rows = private_rows;

faults_site *current = nullptr;
faults_row *forced = nullptr;

void increment(unsigned long &count) { __atomic_fetch_add(&count, 1, __ATOMIC_RELAXED); }

// Finds the site's row or claims the next free one: the process that stores the first byte of the
// key owns the row.
faults_row *find_row(const faults_site &site, const char *function) {
    char key[sizeof faults_row::key];
    const char *file = std::strstr(site.file, "veldarin/modules/");
    std::snprintf(key, sizeof key, "%s:%d:%s", file ? file : site.file, site.line, site.call);
    for (faults_row *row = rows; row != rows + row_count; ++row) {
        char expected = '\0';
        if (__atomic_compare_exchange_n(&row->key[0], &expected, key[0], false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE)) {
            std::snprintf(row->function, sizeof row->function, "%s", function);
            std::memcpy(row->key + 1, key + 1, sizeof key - 1);
            return row;
        }
        if (std::strcmp(row->key, key) == 0) return row;
    }
    std::fprintf(stderr, "the call-site log is full\n");
    std::abort();
}

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
    print("crashed in call: ");
    print(current == nullptr ? "none" : current->row->key);
    print("\nstack:\n");
    backtrace_symbols_fd(frames, count, STDERR_FILENO);
    print("end of stack\n");
    sigaction(number, &previous[number], nullptr);
    raise(number);  // takes effect when this handler returns
}

}  // namespace

const faults_row *current_row() { return current == nullptr ? nullptr : current->row; }

const char *log_triggered() {
    if (current == nullptr) return nullptr;
    increment(current->row->triggered);
    return current->row->key;
}

}  // namespace faults

using namespace faults;

int faults_open_log(const char *path) {
    const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0) return 0;
    void *mapped = MAP_FAILED;
    if (ftruncate(file, log_size) == 0) {
        mapped = mmap(nullptr, log_size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    close(file);
    if (mapped == MAP_FAILED) return 0;
    rows = static_cast<faults_row *>(mapped);
    return 1;
}

int faults_force(const char *key) {
    forced = nullptr;
    if (key == nullptr) return 1;
    for (faults_row *row = rows; row != rows + row_count && forced == nullptr; ++row) {
        if (std::strcmp(row->key, key) == 0) forced = row;
    }
    return forced != nullptr;
}

faults_site *faults_enter(faults_site *site, const char *function, bool *is_forced) {
    if (site->row == nullptr) site->row = find_row(*site, function);
    increment(site->row->reached);
    *is_forced = site->row == forced;
    if (*is_forced) increment(site->row->forced);
    return std::exchange(current, site);
}

void faults_leave(faults_site *site, faults_site *outer, bool failed) {
    current = outer;
    if (failed && site->row != forced) {
        increment(has_failure() ? site->row->oom : site->row->other);
    }
}

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
