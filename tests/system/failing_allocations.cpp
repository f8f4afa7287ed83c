// Preloaded, or linked with, it has allocations of a program and of all its libraries fail: the
// fifth ('=5' in VEXA_TEST_FAIL), each fifth ('%5'), or all from there on ('>5').  It shows the
// stack of a crash.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>

#include <execinfo.h>
#include <unistd.h>

#include "support/allocations.h"

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the C library's
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace {

std::atomic<char> kind{'='};
std::atomic<uint64_t> wanted{0};
std::atomic<uint64_t> made{0};

bool fails() {
    if (allocations::exemptions > 0)
        return false;
    const uint64_t number = ++made;
    if (wanted == 0 || number < wanted || (kind == '=' && number > wanted) ||
        (kind == '%' && number % wanted != 0))
        return false;
    errno = ENOMEM;
    return true;
}

void onCrash(int number) {
    void *frames[64];
    backtrace_symbols_fd(frames, backtrace(frames, 64), STDERR_FILENO);
    std::signal(number, SIG_DFL);
    raise(number);
}

} // namespace

extern "C" {
// Answers how many there were since the last call.
uint64_t failAllocations(char which, uint64_t number) {
    kind = which;
    wanted = number;
    return made.exchange(0);
}
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
void *malloc(size_t size) {
    return fails() ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
    return fails() ? nullptr : __libc_calloc(count, size);
}
void *realloc(void *old, size_t size) {
    return fails() ? nullptr : __libc_realloc(old, size);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
}

__attribute__((constructor)) static void prepare() {
    void *frame = nullptr;
    backtrace(&frame, 1); // loads what it needs, which allocates
    for (const int number : {SIGSEGV, SIGBUS, SIGABRT, SIGALRM})
        std::signal(number, onCrash);
    if (const char *const order = std::getenv("VEXA_TEST_FAIL"); order != nullptr)
        failAllocations(*order, std::strtoull(order + 1, nullptr, 10));
}
