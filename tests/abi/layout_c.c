/* The published layout as a C compiler sees mp4core.h, for the C++ test
 * to compare row by row with its own view. */
#include "abi/layout.h"

/* An application's own decore of another signature compiles beside the
 * header when it asks the header to leave its declaration out. */
#define MP4CORE_NO_DECORE
#include "mp4core.h"
int decore(const char *application_own);

#define RECORD(r, size) {#r, 0, sizeof(r), 0, size},
#define FIELD(r, f, offset, size) {#r "." #f, offsetof(r, f), sizeof(((r *)0)->f), offset, size},
#define CONSTANT(name, value) {#name, (size_t)(name), 0, (size_t)(value), 0},

static const LayoutRow kRows[] = {
    MP4CORE_PUBLISHED_LAYOUT(RECORD, FIELD) MP4CORE_PUBLISHED_CONSTANTS(CONSTANT)};

const LayoutRow *CLayoutRows(size_t *count) {
    *count = sizeof kRows / sizeof kRows[0];
    return kRows;
}
