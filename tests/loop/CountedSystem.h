// Counts the allocations of a program and refuses new threads on request. CountedSystem.cpp replaces operator new and
// pthread_create() for every program that links it.

#ifndef VEXALIVE_TESTS_LOOP_COUNTED_SYSTEM_H
#define VEXALIVE_TESTS_LOOP_COUNTED_SYSTEM_H

#include <atomic>
#include <cstddef>

extern std::atomic<size_t> allocations;  // calls of operator new since the program's start, on all threads
extern std::atomic<bool> refuseThreads;  // while true, no thread can be created

#endif
