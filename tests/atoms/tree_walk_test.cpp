// Walking down a tree by names.
#include <gtest/gtest.h>

#include "atoms/read_tree.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

TEST(TreeWalk, FindChildAndWalkPath) {
    atoms_test::ReadTree tree(
        Atom("moov", {Atom("trak", {Atom("tkhd", {Zeros(84)})}), Atom("trak", {Atom("mdia")})}));
    const AtomNode *moov = tree.root.FirstAtom;
    ASSERT_NE(moov, nullptr);
    EXPECT_EQ(FindChild(moov, "trak"), moov->FirstChild);  // the first of two
    EXPECT_EQ(FindChild(moov, "mvhd"), nullptr);
    EXPECT_EQ(FindChild(nullptr, "trak"), nullptr);

    const char *const found[] = {"trak", "tkhd"};
    const char *missing = nullptr;
    const AtomNode *tkhd = WalkPath(moov, found, 2, &missing);
    ASSERT_NE(tkhd, nullptr);
    EXPECT_STREQ(tkhd->AtomName, "tkhd");
    EXPECT_EQ(missing, nullptr);

    const char *const lost[] = {"trak", "mdia", "minf"};
    EXPECT_EQ(WalkPath(moov, lost, 3, &missing), nullptr);
    EXPECT_STREQ(missing, "mdia");
    EXPECT_EQ(WalkPath(moov, found, 0, nullptr), moov);
}

}  // namespace
