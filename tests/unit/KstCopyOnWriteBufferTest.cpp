#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/KstCopyOnWriteBuffer.h"

namespace {

KstCopyOnWriteBuffer bufferOf(const std::string& text) {
    return KstCopyOnWriteBuffer(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

std::string textOf(const KstCopyOnWriteBuffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.cdata()), buffer.size());
}

TEST(KstCopyOnWriteBufferTest, HoldsTheBytesItWasMadeFromZeroBytesToo) {
    const std::string text("{\"a\":1}\0tail", 12);
    EXPECT_EQ(textOf(bufferOf(text)), text);
}

TEST(KstCopyOnWriteBufferTest, KeepsItsBytesWhenTheSourceChanges) {
    std::string source = "before";
    const KstCopyOnWriteBuffer buffer = bufferOf(source);
    source = "AFTER!";
    EXPECT_EQ(textOf(buffer), "before");
}

TEST(KstCopyOnWriteBufferTest, CopiesShareTheBytesAndOutliveTheOriginal) {
    auto original = std::make_unique<KstCopyOnWriteBuffer>(bufferOf("shared"));
    const KstCopyOnWriteBuffer copy = *original;
    EXPECT_EQ(copy.cdata(), original->cdata());

    original.reset();
    EXPECT_EQ(textOf(copy), "shared");
}

TEST(KstCopyOnWriteBufferTest, AssigningToACopyLeavesTheOriginalAsItWas) {
    const KstCopyOnWriteBuffer original = bufferOf("original");
    KstCopyOnWriteBuffer copy = original;
    copy = bufferOf("other");
    EXPECT_EQ(textOf(original), "original");
    EXPECT_EQ(textOf(copy), "other");
}

TEST(KstCopyOnWriteBufferTest, IsEmptyWithoutBytes) {
    EXPECT_EQ(KstCopyOnWriteBuffer().size(), 0u);
    EXPECT_EQ(KstCopyOnWriteBuffer(nullptr, 0).size(), 0u);
    EXPECT_EQ(KstCopyOnWriteBuffer(nullptr, 0).cdata(), nullptr);
    EXPECT_EQ(bufferOf("").size(), 0u);
}

}  // namespace
