#include "ThreadRefusal.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>

std::atomic<int> threadsAllowed{-1};

// The interceptor of a sanitizer that is linked statically: the next function after ours would be the C library's.
extern "C" [[gnu::weak]] int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) {
    int allowed = threadsAllowed;
    while (allowed >= 0 && !threadsAllowed.compare_exchange_weak(allowed, allowed == 0 ? 0 : allowed - 1)) {
    }
    if (allowed == 0) {
        return EAGAIN;
    }
    static const auto real = __interceptor_pthread_create != nullptr
                                 ? __interceptor_pthread_create
                                 : reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return real(thread, attributes, body, argument);
}
