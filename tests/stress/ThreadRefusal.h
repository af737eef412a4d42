// The creation of threads, refused at will. Linking ThreadRefusal.cpp replaces it for the whole program.

#ifndef VEXALIVE_STRESS_THREAD_REFUSAL_H
#define VEXALIVE_STRESS_THREAD_REFUSAL_H

#include <atomic>

extern std::atomic<int> threadsAllowed;  // so many may still be created; below zero: any number

#endif
