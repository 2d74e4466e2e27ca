// The records and constants applications compile in keep their published
// numbers, from C++ and from C alike.
#include <gtest/gtest.h>

#include "abi/layout.h"
#include "mp4core.h"

#include <type_traits>

namespace {

#define RECORD(r, size) {#r, 0, sizeof(r), 0, size},
#define FIELD(r, f, offset, size) {#r "." #f, offsetof(r, f), sizeof(r::f), offset, size},
#define CONSTANT(name, value) {#name, size_t(name), 0, size_t(value), 0},

// The calls added beside the 22 keep the signatures applications link.
static_assert(std::is_same_v<decltype(&MP4GetAtom),
                             int32_t (*)(MP4_local_file *, const char *, uint8_t **, uint64_t *)>);

const LayoutRow kCppRows[] = {
    MP4CORE_PUBLISHED_LAYOUT(RECORD, FIELD) MP4CORE_PUBLISHED_CONSTANTS(CONSTANT)};

TEST(AbiLayout, RecordsAndConstantsKeepThePublishedNumbersInCAndCpp) {
    if (sizeof(void *) != 8) GTEST_SKIP() << "the published numbers are those of LP64";
    size_t count = 0;
    const LayoutRow *cRows = CLayoutRows(&count);
    ASSERT_EQ(count, std::size(kCppRows));
    for (size_t i = 0; i < count; ++i) {
        for (const LayoutRow *row : {&cRows[i], &kCppRows[i]}) {
            SCOPED_TRACE(std::string(row->Name) + (row == &cRows[i] ? " (C)" : " (C++)"));
            EXPECT_EQ(row->Offset, row->PublishedOffset);
            EXPECT_EQ(row->Size, row->PublishedSize);
        }
    }
}

}  // namespace
