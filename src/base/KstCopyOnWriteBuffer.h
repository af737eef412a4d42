// A byte buffer that is cheap to hand from thread to thread: it carries request and answer bodies.
//
// The bytes are copied once, when the buffer is made, and never change afterwards; copies of the buffer share them.

#ifndef VEXALIVE_BASE_KST_COPY_ON_WRITE_BUFFER_H
#define VEXALIVE_BASE_KST_COPY_ON_WRITE_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

class KstCopyOnWriteBuffer {
public:
    // An empty buffer.
    KstCopyOnWriteBuffer() = default;

    // Copies `size` bytes from `data`, which may be null only if `size` is 0.
    KstCopyOnWriteBuffer(const uint8_t* data, size_t size)
        : mBytes(size == 0 ? nullptr : std::make_shared<const std::vector<uint8_t>>(data, data + size)) {}

    // The bytes, valid as long as a copy of this buffer lives; null if there are none. No zero byte ends them.
    const uint8_t* cdata() const { return mBytes ? mBytes->data() : nullptr; }
    size_t size() const { return mBytes ? mBytes->size() : 0; }

private:
    std::shared_ptr<const std::vector<uint8_t>> mBytes;
};

#endif
