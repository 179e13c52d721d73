// The record of the module's fallible calls: rows in a file that is mapped by every process of a
// run, so that forks, test processes and processes that die all add to the same counts.
#include "call_site_log.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "faults.h"

namespace faults {
namespace {

constexpr size_t row_count = 1024;  // several times the places there are
constexpr size_t record_size = row_count * sizeof(faults_row);

faults_row unshared[row_count];  // unless a file is named
faults_row *rows = unshared;

faults_site *under_way = nullptr;
faults_row *forced = nullptr;

void add(unsigned long &count) { __atomic_fetch_add(&count, 1, __ATOMIC_RELAXED); }

void write_key(char (&key)[sizeof faults_row::key], const faults_site &site) {
    const char *name = std::strstr(site.file, "veldarin/modules/");
    std::snprintf(key, sizeof key, "%s:%d:%s", name ? name : site.file, site.line, site.call);
}

// Rows are taken in order, each by one process: whoever puts down the first character.
faults_row *row_of(const faults_site &site, const char *function) {
    char key[sizeof faults_row::key];
    write_key(key, site);
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
    std::fprintf(stderr, "the record of fallible calls is full\n");
    std::abort();
}

}  // namespace

const void *row_under_way() { return under_way == nullptr ? nullptr : under_way->row; }

const char *call_under_way() { return under_way == nullptr ? nullptr : under_way->row->key; }

const char *note_fired() {
    if (under_way == nullptr) return nullptr;
    add(under_way->row->fired);
    return call_under_way();
}

}  // namespace faults

using namespace faults;

int faults_record_in(const char *path) {
    const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0) return 0;
    void *mapped = MAP_FAILED;
    if (ftruncate(file, record_size) == 0) {
        mapped = mmap(nullptr, record_size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
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
    if (site->row == nullptr) site->row = row_of(*site, function);
    add(site->row->reached);
    *is_forced = site->row == forced;
    if (*is_forced) add(site->row->forced);
    return std::exchange(under_way, site);
}

void faults_leave(faults_site *site, faults_site *outer, bool failed) {
    under_way = outer;
    if (failed && site->row != forced) {
        add(memory_has_failed() ? site->row->of_memory : site->row->otherwise);
    }
}
