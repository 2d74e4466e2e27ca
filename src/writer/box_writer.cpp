// The box writer: sizes patched at the close.
#include "writer/box_writer.h"

#include <cstdlib>
#include <cstring>

#include "frame/frame.h"

namespace {

constexpr size_t kHeadBytes = 8;
constexpr size_t kLargeSizeBytes = 8;

// Room for `count` more bytes; false (Failed set) without memory.
bool Reserve(BoxBuffer *buffer, size_t count) {
    if (buffer->Failed) return false;
    void *block = buffer->Bytes;
    if (count > SIZE_MAX - buffer->Size ||
        !GrowBlock(&block, &buffer->Capacity, buffer->Size + count, 1)) {
        buffer->Failed = true;
        return false;
    }
    buffer->Bytes = static_cast<uint8_t *>(block);
    return true;
}

}  // namespace

void ReleaseBoxBuffer(BoxBuffer *buffer) {
    std::free(buffer->Bytes);
    *buffer = BoxBuffer{};
}

void PutBytes(BoxBuffer *buffer, const void *bytes, size_t count) {
    if (count == 0 || !Reserve(buffer, count)) return;
    std::memcpy(buffer->Bytes + buffer->Size, bytes, count);
    buffer->Size += count;
}

void PutZeros(BoxBuffer *buffer, size_t count) {
    if (count == 0 || !Reserve(buffer, count)) return;
    std::memset(buffer->Bytes + buffer->Size, 0, count);
    buffer->Size += count;
}

void Put8(BoxBuffer *buffer, uint8_t value) { PutBytes(buffer, &value, 1); }

void Put16(BoxBuffer *buffer, uint16_t value) {
    const uint8_t bytes[2] = {uint8_t(value >> 8), uint8_t(value)};
    PutBytes(buffer, bytes, 2);
}

void Put32(BoxBuffer *buffer, uint32_t value) {
    uint8_t bytes[4];
    PutBE32(bytes, 0, value);
    PutBytes(buffer, bytes, 4);
}

void Put64(BoxBuffer *buffer, uint64_t value) {
    uint8_t bytes[8];
    PutBE64(bytes, 0, value);
    PutBytes(buffer, bytes, 8);
}

void PutName(BoxBuffer *buffer, const char *name) { PutBytes(buffer, name, 4); }

size_t OpenBox(BoxBuffer *buffer, const char *name) {
    const size_t start = buffer->Size;
    Put32(buffer, 0);
    PutName(buffer, name);
    return start;
}

size_t OpenFullBox(BoxBuffer *buffer, const char *name, uint8_t version, uint32_t flags) {
    const size_t start = OpenBox(buffer, name);
    Put32(buffer, (uint32_t(version) << 24) | (flags & 0xFFFFFF));
    return start;
}

void CloseBox(BoxBuffer *buffer, size_t start) {
    if (buffer->Failed) return;
    const uint64_t size = buffer->Size - start;
    if (size <= UINT32_MAX) {
        PutBE32(buffer->Bytes, start, uint32_t(size));
        return;
    }
    // The 64-bit size goes between the name and the body, which moves up.
    if (!Reserve(buffer, kLargeSizeBytes)) return;
    uint8_t *body = buffer->Bytes + start + kHeadBytes;
    std::memmove(body + kLargeSizeBytes, body, size - kHeadBytes);
    buffer->Size += kLargeSizeBytes;
    PutBE32(buffer->Bytes, start, 1);
    PutBE64(buffer->Bytes, start + kHeadBytes, size + kLargeSizeBytes);
}
