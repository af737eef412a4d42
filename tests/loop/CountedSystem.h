// Allocations and threads of the program, counted or refused. Linking CountedSystem.cpp replaces the allocation
// functions and the creation of threads for the whole program.

#ifndef VEXALIVE_TESTS_LOOP_COUNTED_SYSTEM_H
#define VEXALIVE_TESTS_LOOP_COUNTED_SYSTEM_H

#include <atomic>
#include <cstddef>

extern std::atomic<size_t> allocations;  // so far, on all threads
extern std::atomic<bool> refuseThreads;  // while true, no thread can be created

#endif
