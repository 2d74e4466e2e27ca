// Template trees: the shape of each track tree and of the file's top
// level, and what a built tree leaves for the allocation and the writer.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "atoms/atoms.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

// "name(child,child(...))", in child order.
std::string Shape(const AtomNode *node) {
    std::string text(node->AtomName, 4);
    if (node->FirstChild == nullptr) return text;
    text += "(";
    for (const AtomNode *child = node->FirstChild; child != nullptr; child = child->NextSibling) {
        if (child != node->FirstChild) text += ",";
        text += Shape(child);
    }
    return text + ")";
}

// Counts the nodes and checks what every node of a fresh tree holds.
int CheckFresh(const AtomNode *node, const AtomNode *parent) {
    EXPECT_EQ(node->ParentAtom, parent) << node->AtomName;
    EXPECT_EQ(node->AtomSize, 0u) << node->AtomName;
    EXPECT_EQ(node->AtomOffset, 0u) << node->AtomName;
    EXPECT_EQ(node->realStructure, nullptr) << node->AtomName;
    EXPECT_EQ(node->AtomName[4], '\0');
    int count = 1;
    for (const AtomNode *child = node->FirstChild; child != nullptr; child = child->NextSibling)
        count += CheckFresh(child, node);
    return count;
}

void FreeTree(AtomNode *node) {
    AtomNode *child = node->FirstChild;
    while (child != nullptr) {
        AtomNode *next = child->NextSibling;
        FreeTree(child);
        child = next;
    }
    std::free(node->realStructure);
    std::free(node);
}

const std::string kDinf = "dinf(dref(url ))";

TEST(Templates, EachTrackTypeBuildsItsTreeInRowOrder) {
    struct Case {
        int32_t trackType;
        uint8_t compositionTimes;
        std::string shape;
        int atoms;
    };
    const std::string videoStbl = "stbl(stsd(mp4v(esds)),stts,stsz,stsc,stco,stss";
    const Case kCases[] = {
        {1, 0, "trak(tkhd,mdia(mdhd,hdlr,minf(vmhd," + kDinf + "," + videoStbl + "))))", 19},
        {1, 1, "trak(tkhd,mdia(mdhd,hdlr,minf(vmhd," + kDinf + "," + videoStbl + ",ctts))))", 20},
        {2, 0, "trak(tkhd,mdia(mdhd,hdlr,minf(smhd," + kDinf +
                   ",stbl(stsd(mp4a(esds)),stts,stsz,stsc,stco))))", 18},
        // Only the video tree has a "ctts" row.
        {2, 1, "trak(tkhd,mdia(mdhd,hdlr,minf(smhd," + kDinf +
                   ",stbl(stsd(mp4a(esds)),stts,stsz,stsc,stco))))", 18},
        {4, 1, "trak(tkhd,tref(mpod),mdia(mdhd,hdlr,minf(nmhd," + kDinf +
                   ",stbl(stsd(mp4s(esds)),stts,stsz,stsc,stco))))", 20},
        {5, 0, "trak(tkhd,mdia(mdhd,hdlr,minf(nmhd," + kDinf +
                   ",stbl(stsd(mp4s(esds)),stts,stsz,stsc,stco))))", 18},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.trackType);
        AtomNode *root = nullptr;
        ASSERT_EQ(CreateTrackTree(&root, c.trackType, nullptr, nullptr, c.compositionTimes), 1);
        ASSERT_NE(root, nullptr);
        EXPECT_EQ(Shape(root), c.shape);
        EXPECT_EQ(CheckFresh(root, nullptr), c.atoms);
        EXPECT_EQ(root->NextSibling, nullptr);
        // Every template passes the validation without a message.
        CaptureStream out(stdout);
        EXPECT_TRUE(CheckAtom(root));
        EXPECT_EQ(out.Text(), "");
        FreeTree(root);
    }
}

TEST(Templates, TypesOutsideOneToFiveFailHintBuildsNothingAndTheParentIsTaken) {
    for (int32_t type : {0, 6, -1, 3}) {
        AtomNode sentinel{};
        AtomNode *root = &sentinel;
        EXPECT_EQ(CreateTrackTree(&root, type, nullptr, nullptr, 0), type == 3 ? 1 : -99) << type;
        EXPECT_EQ(root, &sentinel) << "root is untouched for type " << type;
    }
    AtomNode parent{}, sibling{};
    AtomNode *root = nullptr;
    ASSERT_EQ(CreateTrackTree(&root, 2, &parent, &sibling, 0), 1);
    EXPECT_EQ(root->ParentAtom, &parent);
    EXPECT_EQ(root->NextSibling, &sibling);
    EXPECT_EQ(parent.FirstChild, nullptr);
    root->NextSibling = nullptr;
    FreeTree(root);
}

TEST(Templates, FileTreeIsFtypMoovMdatWithoutRoot) {
    Root_atom root{};
    ASSERT_EQ(CreateFileTree(&root), 1);
    std::string shapes;
    for (AtomNode *atom = root.FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        shapes += Shape(atom) + " ";
        CheckFresh(atom, nullptr);
    }
    EXPECT_EQ(shapes, "ftyp moov(mvhd,iods) mdat ");
    AtomNode *atom = root.FirstAtom;
    while (atom != nullptr) {
        AtomNode *next = atom->NextSibling;
        FreeTree(atom);
        atom = next;
    }
}

TEST(Templates, BuildAtomTreeLinksChildrenInRowOrderWhateverTheParentRowOrder) {
    // Row 4 names row 2 as parent after row 3 did: children follow rows.
    TemplateRow rows[] = {
        {nullptr, 4, ""},     {nullptr, 0, "moov"}, {nullptr, 1, "trak"},
        {nullptr, 1, "mvhd"}, {nullptr, 2, "tkhd"},
    };
    AtomNode *root = nullptr;
    ASSERT_EQ(BuildAtomTree(&root, rows), 1);
    EXPECT_EQ(Shape(root), "moov(trak(tkhd),mvhd)");
    EXPECT_EQ(rows[3].RowNode->ParentAtom, root);
    FreeTree(root);
}

}  // namespace
