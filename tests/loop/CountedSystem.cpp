#include "CountedSystem.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <new>

std::atomic<size_t> allocations{0};
std::atomic<bool> refuseThreads{false};

void* operator new(size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

// The interceptor of a sanitizer that is linked statically: the next function after ours would be the C library's.
extern "C" [[gnu::weak]] int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) {
    if (refuseThreads) {
        return EAGAIN;
    }
    static const auto real = __interceptor_pthread_create != nullptr
                                 ? __interceptor_pthread_create
                                 : reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return real(thread, attributes, body, argument);
}
