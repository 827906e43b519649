// Replaces the global allocation functions with counting ones.
#include "allocation_count.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<unsigned long long> g_nAllocations{0};

void* CountedAlloc(std::size_t size) {
    g_nAllocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size == 0 ? 1 : size);
}

// Out of line, so that the compiler does not pair the free with the
// operator new it sees inlined at a call site.
[[gnu::noinline]] void CountedFree(void* p) noexcept {
    std::free(p);
}

}  // namespace

void* operator new(std::size_t size) {
    if (void* p = CountedAlloc(size)) {
        return p;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    if (void* p = CountedAlloc(size)) {
        return p;
    }
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return CountedAlloc(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return CountedAlloc(size);
}
void operator delete(void* p) noexcept {
    CountedFree(p);
}
void operator delete[](void* p) noexcept {
    CountedFree(p);
}
void operator delete(void* p, std::size_t) noexcept {
    CountedFree(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    CountedFree(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    CountedFree(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    CountedFree(p);
}

namespace kr7bench {
unsigned long long AllocationCount() {
    return g_nAllocations.load();
}
}  // namespace kr7bench
