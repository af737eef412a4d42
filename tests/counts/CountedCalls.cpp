#include "CountedCalls.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <cstddef>

std::atomic<int> allocations{0};
std::atomic<int> connections{0};

extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

void* malloc(size_t size) {
    ++allocations;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    ++allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
    ++allocations;
    return __libc_realloc(memory, size);
}

int connect(int socket, const sockaddr* address, socklen_t size) {
    static const auto real = reinterpret_cast<decltype(&connect)>(dlsym(RTLD_NEXT, "connect"));
    ++connections;
    return real(socket, address, size);
}
}
