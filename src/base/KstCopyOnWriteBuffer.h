/// @file
/// An immutable byte buffer for request and response bodies that is cheap to pass between threads.

#ifndef VEXALIVE_BASE_KST_COPY_ON_WRITE_BUFFER_H
#define VEXALIVE_BASE_KST_COPY_ON_WRITE_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// Copies the bytes once, at construction. Copies of the buffer share them. Several threads may use copies at once.
class KstCopyOnWriteBuffer {
public:
    /// An empty buffer.
    KstCopyOnWriteBuffer() = default;

    /// Copies `size` bytes from `data`, which may be null only if `size` is 0.
    KstCopyOnWriteBuffer(const uint8_t* data, size_t size)
        : mBytes(size == 0 ? nullptr : std::make_shared<const std::vector<uint8_t>>(data, data + size)) {}

    /// The bytes, valid as long as a copy of this buffer lives; null if size() is 0. Not terminated by a zero byte.
    const uint8_t* cdata() const { return mBytes ? mBytes->data() : nullptr; }

    /// The number of bytes.
    size_t size() const { return mBytes ? mBytes->size() : 0; }

private:
    std::shared_ptr<const std::vector<uint8_t>> mBytes;
};

#endif
