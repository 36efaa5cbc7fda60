// Heap allocations of this process counted while a count is on: this
// executable's malloc, calloc, realloc and operator new count each call (and
// its bytes) and hand it to the C library's allocator. Every thread's calls
// count; the benchmarks switch counting on around work of their own thread.
#pragma once

#include <cstddef>

namespace heap_counter {

struct Tally {
  long allocations = 0;
  long bytes = 0;
  long from_range = 0;  // allocations whose caller lies in the watched range
};

// The code whose own allocations are told apart, e.g. a library's
// executable segment: [begin, end).
void watch_callers(const void* begin, const void* end);

// Clears the tally and starts counting.
void start();
// Stops counting and returns what was counted since start().
Tally stop();

}  // namespace heap_counter
