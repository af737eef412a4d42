// Counts calls of the C library. CountedCalls.cpp replaces connect() and the malloc family, which operator new calls.

#ifndef VEXALIVE_TESTS_COUNTS_COUNTED_CALLS_H
#define VEXALIVE_TESTS_COUNTS_COUNTED_CALLS_H

#include <atomic>

extern std::atomic<int> allocations;  // since the program's start, on all threads
extern std::atomic<int> connections;

#endif
