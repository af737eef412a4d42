#ifndef VEXALIVE_COMMON_DESCRIPTOR_H
#define VEXALIVE_COMMON_DESCRIPTOR_H

namespace vexalive {

/// Owns a file descriptor: a file, a socket, a pipe. Closes it when destroyed.
class Descriptor {
public:
    /// Takes ownership of `fd`. A negative `fd` means no descriptor.
    explicit Descriptor(int fd = -1) : mFd(fd) {}
    Descriptor(Descriptor&& other) noexcept : mFd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    ~Descriptor() { reset(); }

    int get() const { return mFd; }
    bool isOpen() const { return mFd >= 0; }
    void reset();

    /// Gives up ownership; the caller closes the descriptor.
    int release();

private:
    int mFd;
};

}  // namespace vexalive

#endif
