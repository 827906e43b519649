// Heap allocations made by the program so far: the benchmarks that link
// allocation_count.cpp count every operator new, replaced there.
#pragma once

namespace kr7bench {
unsigned long long AllocationCount();
}  // namespace kr7bench
