// Replaces the C allocation functions of the whole process with counting
// ones that forward to glibc's own (__libc_malloc and friends): every heap
// allocation of the program and of the libraries it loads is counted, GLib's
// and GStreamer's too (with G_SLICE=always-malloc, GLib's slices as well);
// operator new comes here through malloc. Only for the programs that count
// so (not with allocation_count.cpp, not in sanitizer builds).
#include <errno.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>

#include "malloc_count.h"

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

namespace {
std::atomic<unsigned long long> g_nAllocations{0};

void Count() {
    g_nAllocations.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

extern "C" {

void* malloc(std::size_t size) {
    Count();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    Count();
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
    Count();
    return __libc_realloc(block, size);
}

void free(void* block) {
    __libc_free(block);
}

void* memalign(std::size_t alignment, std::size_t size) {
    Count();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    Count();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
    Count();
    void* block = __libc_memalign(alignment, size);
    if (block == nullptr) {
        return ENOMEM;
    }
    *out = block;
    return 0;
}

void* valloc(std::size_t size) {
    Count();
    return __libc_memalign(static_cast<std::size_t>(sysconf(_SC_PAGESIZE)), size);
}

}  // extern "C"

namespace kr7bench {
unsigned long long MallocCount() {
    return g_nAllocations.load();
}
}  // namespace kr7bench
