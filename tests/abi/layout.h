/* One row of the layout of a record that crosses the library's boundary,
 * as one compiler sees it. Shared by the C and the C++ view. */
#ifndef MP4CORE_TESTS_ABI_LAYOUT_H
#define MP4CORE_TESTS_ABI_LAYOUT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct LayoutRow {
    const char *Record;
    const char *Field;
    size_t Offset;
    size_t Size;
} LayoutRow;

/* The fields of MP4Sample, Mp4MediaInfo, FileInfo, IodConfigs and
 * DecoreFrame, and one row per record with Field "sizeof", as a C
 * compiler lays them out from mp4core.h. */
const LayoutRow *CLayoutRows(size_t *count);

/* The constants applications compile in, as a C compiler sees them. */
typedef struct ConstantRow {
    const char *Name;
    long Value;
} ConstantRow;
const ConstantRow *CConstantRows(size_t *count);

#ifdef __cplusplus
}
#endif

#endif
