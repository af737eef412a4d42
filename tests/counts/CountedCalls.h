// Counts calls of the C library. Linking CountedCalls.cpp replaces connect and the allocation functions of the malloc
// family, through which operator new and the libraries allocate, too.

#ifndef VEXALIVE_TESTS_COUNTS_COUNTED_CALLS_H
#define VEXALIVE_TESTS_COUNTS_COUNTED_CALLS_H

#include <atomic>

extern std::atomic<int> allocations;  // so far, on all threads
extern std::atomic<int> connections;

#endif
