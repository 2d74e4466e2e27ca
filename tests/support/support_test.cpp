// The byte builders that every hostile-file test stands on.
#include <gtest/gtest.h>

#include "support/test_support.h"

using namespace testing_support;

TEST(TestSupport, AtomSizesCountHeadAndBody) {
    Bytes atom = Atom("moov", {Atom("mvhd", {Zeros(100)})});
    EXPECT_EQ(atom, Cat({U32(116), Text("moov"), U32(108), Text("mvhd"), Zeros(100)}));
    EXPECT_EQ(FullAtom("stss", 0, {U32(1)}), Hex("00000010 73747373 00000000 00000001"));
}

TEST(TestSupport, CaptureStreamSeesPrintf) {
    CaptureStream capture(stdout);
    std::printf("hello %d\n", 7);
    EXPECT_EQ(capture.Text(), "hello 7\n");
}
