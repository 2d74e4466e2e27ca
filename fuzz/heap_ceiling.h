// The heap a modern open may hold, checked by the targets that read MP4
// files: at most 16 bytes per byte of input and 1 MiB, else the run aborts,
// a finding (memory that follows what the tables claim, not the file).
// MP4CORE_FUZZ_HEAP_CEILING=0 turns the check off.
#pragma once

#include <sanitizer/allocator_interface.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>

inline size_t HeapInUse() { return __sanitizer_get_current_allocated_bytes(); }

// `before`: HeapInUse() before the open.
inline void CheckHeapCeiling(size_t before, size_t inputSize) {
    static const bool on = [] {
        const char *value = std::getenv("MP4CORE_FUZZ_HEAP_CEILING");
        return value == nullptr || value[0] != '0';
    }();
    const size_t now = HeapInUse(), held = now > before ? now - before : 0;
    if (!on || held <= 16 * inputSize + (size_t(1) << 20)) return;
    std::fprintf(stderr, "heap ceiling: the modern open holds %zu bytes for %zu bytes of input\n",
                 held, inputSize);
    std::abort();
}
