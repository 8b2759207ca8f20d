// Counts what a row costs: allocations, bytes asked for, heap at most and, under callgrind, instructions.

#include <malloc.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "bench.h"

/** What the operators below are asked for while it is counted; else they cost all who are timed one test. */
static struct Heap {
    bool counted = false;
    std::size_t allocations = 0, bytes = 0;
    std::ptrdiff_t live = 0, peak = 0;
} heap;

void* operator new(std::size_t size) {
    void* memory = std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    if (heap.counted) {
        ++heap.allocations;
        heap.bytes += size;
        heap.live += static_cast<std::ptrdiff_t>(::malloc_usable_size(memory));
        heap.peak = std::max(heap.peak, heap.live);
    }
    return memory;
}
void operator delete(void* memory) noexcept {
    if (heap.counted) heap.live -= static_cast<std::ptrdiff_t>(::malloc_usable_size(memory));
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept { operator delete(memory); }

void bench::printCost(const std::string& row, const std::function<void()>& run) {
    run();
    heap = {true};
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
    run();
    CALLGRIND_DUMP_STATS_AT(row.c_str());
    CALLGRIND_STOP_INSTRUMENTATION;
    heap.counted = false;
    std::printf("%s\t%zu\t%zu\t%td\n", row.c_str(), heap.allocations, heap.bytes, heap.peak);
}
