// What a program asks of the C library, counted: linking CountedCalls.cpp puts counters before malloc and its kin,
// through which operator new and the libraries allocate too, and before connect.

#ifndef VEXALIVE_TESTS_COUNTS_COUNTED_CALLS_H
#define VEXALIVE_TESTS_COUNTS_COUNTED_CALLS_H

#include <atomic>

extern std::atomic<int> allocations;  // so far, on all threads
extern std::atomic<int> connections;

#endif
