#include "common/Descriptor.h"

#include <unistd.h>

#include <utility>

namespace vexalive {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        reset();
        mFd = other.release();
    }
    return *this;
}

void Descriptor::reset() {
    if (mFd >= 0) {
        ::close(mFd);
    }
    mFd = -1;
}

int Descriptor::release() {
    return std::exchange(mFd, -1);
}

}  // namespace vexalive
