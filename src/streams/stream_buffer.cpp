// The output block of the converters, and the message of a refusal or a
// damaged sample.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "streams/streams.h"

bool AppendBytes(StreamBuffer *buffer, const void *bytes, size_t size) {
    if (size == 0) return true;
    if (size > buffer->Capacity - buffer->Size) {
        if (size > SIZE_MAX / 2 - buffer->Size) return false;
        size_t capacity = buffer->Capacity < 4096 ? 4096 : buffer->Capacity;
        while (capacity - buffer->Size < size) capacity *= 2;
        uint8_t *grown = static_cast<uint8_t *>(std::realloc(buffer->Data, capacity));
        if (grown == nullptr) return false;
        buffer->Data = grown;
        buffer->Capacity = capacity;
    }
    std::memcpy(buffer->Data + buffer->Size, bytes, size);
    buffer->Size += size;
    return true;
}

void FreeStreamBuffer(StreamBuffer *buffer) {
    std::free(buffer->Data);
    *buffer = StreamBuffer{};
}

int32_t StreamMessage(StreamState *state, int32_t result, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(state->Message, sizeof state->Message, format, arguments);
    va_end(arguments);
    return result;
}
