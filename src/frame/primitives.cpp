// Big-endian fields, four-character names, zeroed memory and the size of
// an open file.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "frame/frame.h"

uint32_t ReadBE32(const uint8_t *bytes) { return GetBE32(bytes, 0); }

uint32_t SwapBytes32(uint32_t value) {
    return (value >> 24) | ((value >> 8) & 0x0000FF00u) | ((value << 8) & 0x00FF0000u) |
           (value << 24);
}

uint16_t SwapBytes16(uint16_t value) { return uint16_t((value >> 8) | (value << 8)); }

bool CopyAtomName(char *destination, const char *source) {
    if (destination == nullptr || source == nullptr) return false;
    std::memcpy(destination, source, 4);
    destination[4] = '\0';
    return true;
}

void *ZeroAlloc(size_t size) { return std::calloc(1, size == 0 ? 1 : size); }

void FreeIfSet(void *pointer) {
    if (pointer != nullptr) std::free(pointer);
}

bool GrowBlock(void **block, size_t *capacity, size_t needed, size_t unit) {
    if (needed <= *capacity) return true;
    size_t units = needed < 16 ? 16 : needed;
    if (*capacity <= SIZE_MAX / 4 && *capacity * 2 > units) units = *capacity * 2;
    if (units > SIZE_MAX / unit) return false;
    void *grown = std::realloc(*block, units * unit);
    if (grown == nullptr) return false;
    *block = grown;
    *capacity = units;
    return true;
}

uint64_t FileSizeNow(FILE *stream) {
    struct stat status;
    if (stream == nullptr || fstat(fileno(stream), &status) != 0 || status.st_size < 0) return 0;
    return uint64_t(status.st_size);
}
