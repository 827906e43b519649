// Heap allocations of the whole process so far (every malloc, calloc,
// realloc and aligned allocation, of the program and of every library):
// the benchmarks that link malloc_count.cpp count them there.
#pragma once

namespace kr7bench {
unsigned long long MallocCount();
}  // namespace kr7bench
