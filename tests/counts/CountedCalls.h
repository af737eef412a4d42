// Counts allocations and connections. CountedCalls.cpp replaces connect(), malloc(), calloc() and realloc() of the C
// library. operator new is counted, too, because it calls malloc().

#ifndef VEXALIVE_TESTS_COUNTS_COUNTED_CALLS_H
#define VEXALIVE_TESTS_COUNTS_COUNTED_CALLS_H

#include <atomic>

extern std::atomic<int> allocations;  // since the program's start, on all threads
extern std::atomic<int> connections;

#endif
