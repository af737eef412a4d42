// Limits the creation of threads. ThreadRefusal.cpp replaces pthread_create() for every program that links it.

#ifndef VEXALIVE_STRESS_THREAD_REFUSAL_H
#define VEXALIVE_STRESS_THREAD_REFUSAL_H

#include <atomic>

extern std::atomic<int> threadsAllowed;  // how many more threads may be created; negative: any number

#endif
