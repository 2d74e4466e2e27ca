/* The published layout of every record that crosses the library's boundary
 * and of the constants applications compile in, for 64-bit Linux (LP64).
 * A change to any number breaks programs built against an earlier
 * mp4core.h. One table (tests/data/abi.rows), expanded by the C and the C++
 * view of the header. */
#ifndef MP4CORE_TESTS_ABI_LAYOUT_H
#define MP4CORE_TESTS_ABI_LAYOUT_H

#include <stddef.h>

/* MP4CORE_PUBLISHED_LAYOUT(RECORD, FIELD): RECORD(record, size) then
 * FIELD(record, field, offset, size) per field; and
 * MP4CORE_PUBLISHED_CONSTANTS(CONSTANT): CONSTANT(name, value). Made by
 * tests/CMakeLists.txt from tests/data/abi.rows. */
#include "abi/layout_rows.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One field (or, with Field "sizeof", one record) or constant as a
 * compiler lays it out, beside the published numbers. */
typedef struct LayoutRow {
    const char *Name;
    size_t Offset, Size;                   /* as compiled */
    size_t PublishedOffset, PublishedSize;
} LayoutRow;

/* The rows as the C compiler sees mp4core.h; constants have Size 0 and
 * their value in Offset. */
const LayoutRow *CLayoutRows(size_t *count);

#ifdef __cplusplus
}
#endif

#endif
