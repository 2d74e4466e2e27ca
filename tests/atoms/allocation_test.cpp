// Record allocation: sizes by the catalogue, the name in HeadName, and
// the bare record of atoms without a schema.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "atoms/read_tree.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

TEST(Allocation, RecordIsZeroedButForItsNameAndSizeZeroIsRefused) {
    uint8_t *record = nullptr;
    ASSERT_EQ(AllocAtomRecord(24, "stsz", &record), 1);
    uint8_t expected[24] = {};
    std::memcpy(expected + 4, "stsz", 4);
    EXPECT_EQ(std::memcmp(record, expected, 24), 0);
    std::free(record);
    uint8_t marker = 0;
    record = &marker;
    EXPECT_EQ(AllocAtomRecord(0, "stsz", &record), -99);
    EXPECT_EQ(record, &marker);
}

// Known, unknown and free atoms, and the root, all get a record that
// names them; the children's walk leaves the parent itself alone.
TEST(Allocation, EveryAtomOfATreeGetsItsRecord) {
    CaptureStream quiet(stdout);  // the unknown top-level atom's message
    atoms_test::ReadTree tree(Cat({Atom("ftyp", {Zeros(12)}), Atom("abcd"),
                                   Atom("moov", {Atom("free"), Atom("trak", {Atom("tkhd", {Zeros(84)})}),
                                                 Atom("stsz", {Zeros(12)})})}));
    ASSERT_EQ(tree.result, 1);
    ASSERT_EQ(AllocTreeRecords(&tree.root), 1);
    struct Walk {
        static void Check(const AtomNode *node) {
            for (; node != nullptr; node = node->NextSibling) {
                SCOPED_TRACE(node->AtomName);
                ASSERT_NE(node->realStructure, nullptr);
                EXPECT_EQ(std::memcmp(node->realStructure + 4, node->AtomName, 4), 0);
                EXPECT_EQ(GetBE32(node->realStructure, 0), 0u);
                EXPECT_EQ(GetRecordPointer(node), nullptr);
                Check(node->FirstChild);
            }
        }
    };
    Walk::Check(tree.root.FirstAtom);

    AtomNode child{}, root{};
    CopyAtomName(child.AtomName, "mvhd");
    CopyAtomName(root.AtomName, "root");
    root.FirstChild = &child;
    ASSERT_EQ(AllocChildRecords(&root), 1);
    EXPECT_EQ(root.realStructure, nullptr);
    ASSERT_NE(child.realStructure, nullptr);
    ASSERT_EQ(AllocNodeRecord(&root), 1);
    EXPECT_EQ(std::memcmp(root.realStructure + 4, "root", 4), 0);
    std::free(child.realStructure);
    std::free(root.realStructure);
}

}  // namespace
