// The box writer of the modern writer: a box is opened, its fields and
// children are written behind it, and its size is filled in when it is
// closed, so no size is ever computed ahead of the bytes it counts. A box
// that passes 4 GiB is given a 64-bit size at its close.
#pragma once

#include <cstddef>
#include <cstdint>

// A growing block of bytes. A write that finds no memory sets Failed and
// is dropped, as are all later ones: the caller checks Failed once at the
// end rather than after every field.
struct BoxBuffer {
    uint8_t *Bytes;
    size_t Size;
    size_t Capacity;
    bool Failed;
};

void ReleaseBoxBuffer(BoxBuffer *buffer);

void Put8(BoxBuffer *buffer, uint8_t value);
void Put16(BoxBuffer *buffer, uint16_t value);
void Put32(BoxBuffer *buffer, uint32_t value);
void Put64(BoxBuffer *buffer, uint64_t value);
void PutBytes(BoxBuffer *buffer, const void *bytes, size_t count);
void PutZeros(BoxBuffer *buffer, size_t count);
// Four characters, no terminator.
void PutName(BoxBuffer *buffer, const char *name);

// Opens a box: its head with the size left open. Gives where it starts,
// for CloseBox.
size_t OpenBox(BoxBuffer *buffer, const char *name);
// Opens a full box: the head, then version and flags.
size_t OpenFullBox(BoxBuffer *buffer, const char *name, uint8_t version, uint32_t flags);
// Fills in the size of the box opened at `start`: 32 bits, or size 1 with
// the 64-bit size behind the name when the box passes 4 GiB.
void CloseBox(BoxBuffer *buffer, size_t start);
