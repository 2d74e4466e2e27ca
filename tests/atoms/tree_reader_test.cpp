// The tree reader over hand-built byte images: what gets a node, what
// ends a scan, and what is printed; and the walk down a read tree by names.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "atoms/read_tree.h"
#include "support/test_support.h"

namespace {

using atoms_test::Descend;
using atoms_test::Outline;
using atoms_test::ReadTree;
using namespace testing_support;

const Bytes kFtyp = Atom("ftyp", {Text("isom"), U32(0), Text("isom")});
const Bytes kMvhd = FullAtom("mvhd", 0, {Zeros(96)});
const Bytes kTkhd = FullAtom("tkhd", 0, {Zeros(80)});

struct Case {
    const char *what;
    Bytes file;
    int32_t result;
    std::string outline;
    std::string printed;
};

void RunCases(const std::vector<Case> &cases) {
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        CaptureStream out(stdout);
        ReadTree tree(c.file);
        std::string printed = out.Text();
        EXPECT_EQ(tree.result, c.result);
        EXPECT_EQ(Outline(tree.root.FirstAtom), c.outline);
        EXPECT_EQ(printed, c.printed);
    }
}

TEST(TreeReader, TopLevelScan) {
    std::vector<Case> cases = {
        {"one ftyp", kFtyp, 1, "ftyp", ""},
        {"short head behind the last atom", Cat({kFtyp, Zeros(5)}), -99, "ftyp",
         "Read data from file error!\n"},
        {"last atom reaches past the end, as a truncated mdat",
         Cat({kFtyp, AtomWithSize(5000, "mdat", {Zeros(10)})}), 1, "ftyp mdat", ""},
        {"unknown top-level atoms get nodes, once each message",
         Cat({Atom("abcd", {Zeros(4)}), kFtyp, Atom("XYZW"), Atom("mdat")}), 1,
         "abcd ftyp XYZW mdat",
         "There could be have illegal atoms!There could be have illegal atoms!"},
        {"unknown name has no children scanned", Atom("abcd", {kMvhd}), 1, "abcd",
         "There could be have illegal atoms!"},
        {"free at the top level", Cat({Atom("free", {Zeros(3)}), kFtyp}), 1, "free ftyp", ""},
        {"size beyond 32 bits from its position ends the scan",
         Cat({kFtyp, AtomWithSize(0xFFFFFFFFu, "mdat", {Zeros(8)}), Atom("moov")}), 1,
         "ftyp mdat", ""},
    };
    for (uint32_t size = 0; size < 8; ++size)
        cases.push_back({"size below 8 fails like a short read",
                         Cat({kFtyp, AtomWithSize(size, "mdat", {Zeros(16)})}), -99, "ftyp",
                         "Read data from file error!\n"});
    RunCases(cases);
}

TEST(TreeReader, ChildScan) {
    const Bytes mp4v = Atom("mp4v", {Zeros(78), Atom("esds", {Zeros(4)})});
    std::vector<Case> cases = {
        {"stsd with count 1 and two entries keeps both",
         Atom("stsd", {U32(0), U32(1), mp4v, mp4v}), 1, "stsd[mp4v[esds] mp4v[esds]]", ""},
        {"unknown child ends its container without a message",
         Cat({Atom("moov", {kMvhd, Atom("trak", {kTkhd, Atom("zzzz"), Atom("mdia")})}),
              Atom("mdat")}),
         1, "moov[mvhd trak[tkhd]] mdat", ""},
        {"free inside a container, scan goes on behind it",
         Atom("moov", {kMvhd, Atom("free", {Zeros(4)}), Atom("trak")}), 1,
         "moov[mvhd free trak]", ""},
        {"moov inside moov is scanned", Atom("moov", {Atom("moov", {kMvhd})}), 1,
         "moov[moov[mvhd]]", ""},
        {"dref of 16 bytes has no children and is not read inside",
         Atom("dinf", {AtomWithSize(16, "dref", {U32(0), U32(1)}), Atom("url ", {U32(1)})}), 1,
         "dinf[dref url ]", ""},
        {"short head inside a container ends that scan only",
         Cat({kFtyp, AtomWithSize(200, "moov", {kMvhd, Zeros(3)})}), 1, "ftyp moov[mvhd]",
         "Read data from file error!\n"},
        {"child reaching past its parent ends the parent's scan with the child in",
         Cat({Atom("moov", {AtomWithSize(40, "trak", {Zeros(4)})}), Atom("mdat", {Zeros(40)})}),
         1, "moov[trak] mdat", ""},
        {"child size overflowing 32 bits stays, the container's scan ends",
         Cat({Atom("moov", {kMvhd, AtomWithSize(0xFFFFFFF8u, "skip"), kMvhd}), Atom("mdat")}), 1,
         "moov[mvhd skip] mdat", ""},
        {"a child container reaching past the file reads on until a short read",
         Cat({Atom("moov", {kMvhd, AtomWithSize(0xFFFFFFF8u, "udta"), kMvhd}), Atom("mdat")}), 1,
         "moov[mvhd udta[mvhd mdat]] mdat", "Read data from file error!\n"},
        {"stsd scans from offset 16, mp4v from 86",
         Atom("stsd", {Text("stsdstsd"), Atom("mp4v", {Zeros(70), Text("esds"), Zeros(4),
                                                       Atom("esds")})}),
         1, "stsd[mp4v[esds]]", ""},
    };
    for (uint32_t size = 0; size < 8; ++size)
        cases.push_back({"child size below 8 ends its container like an unknown atom",
                         Cat({Atom("moov", {kMvhd, AtomWithSize(size, "trak", {Zeros(8)}), kMvhd}),
                              Atom("mdat")}),
                         1, "moov[mvhd] mdat", ""});
    RunCases(cases);
}

// A file of 100000 nested containers: the scan stops at the depth bound,
// quickly and with the stack intact.
TEST(TreeReader, DeepNestingEndsAtTheDepthBoundQuickly) {
    constexpr uint32_t kLevels = 100000;
    Bytes file;
    file.reserve(kLevels * 8);
    for (uint32_t level = 0; level < kLevels; ++level) {
        Bytes head = U32((kLevels - level) * 8);
        file.insert(file.end(), head.begin(), head.end());
        file.insert(file.end(), {'m', 'o', 'o', 'v'});
    }
    auto started = std::chrono::steady_clock::now();
    CaptureStream out(stdout);
    ReadTree tree(file, true);
    CheckAtomTree(&tree.root);
    out.Text();
    auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started);
    EXPECT_EQ(tree.result, 1);
    EXPECT_LT(seconds.count(), 5.0);
    const AtomNode *deepest = Descend(tree.root.FirstAtom, int(kMaxAtomDepth));
    ASSERT_NE(deepest, nullptr);
    EXPECT_EQ(deepest->FirstChild, nullptr);
    EXPECT_EQ(deepest->AtomOffset, kMaxAtomDepth * 8);
}

TEST(TreeReader, NodesHoldSizeNameOffsetAndParent) {
    ReadTree tree(Cat({kFtyp, Atom("moov", {kMvhd, Atom("trak", {kTkhd})})}));
    ASSERT_EQ(tree.result, 1);
    const AtomNode *moov = tree.root.FirstAtom->NextSibling;
    ASSERT_NE(moov, nullptr);
    EXPECT_EQ(moov->AtomOffset, kFtyp.size());
    EXPECT_EQ(moov->AtomSize, 8 + kMvhd.size() + 8 + kTkhd.size());
    EXPECT_EQ(moov->ParentAtom, nullptr);
    const AtomNode *tkhd = moov->FirstChild->NextSibling->FirstChild;
    ASSERT_NE(tkhd, nullptr);
    EXPECT_STREQ(tkhd->AtomName, "tkhd");
    EXPECT_EQ(tkhd->AtomOffset, kFtyp.size() + 8 + kMvhd.size() + 8);
    EXPECT_EQ(tkhd->ParentAtom, moov->FirstChild->NextSibling);
}

TEST(TreeReader, ChildScanResults) {
    struct ChildCase {
        const char *what;
        Bytes file;
        int32_t result;
    };
    const ChildCase kCases[] = {
        {"children to the end", Atom("moov", {kMvhd, Atom("trak")}), 1},
        {"no room for children", Atom("moov"), 1},
        {"unknown child", Atom("moov", {kMvhd, Atom("zzzz")}), -1},
        {"size below 8", Atom("moov", {AtomWithSize(0, "trak", {Zeros(8)})}), -1},
        {"short read", AtomWithSize(200, "moov", {kMvhd}), -99},
    };
    for (const ChildCase &c : kCases) {
        SCOPED_TRACE(c.what);
        TempFile file(c.file);
        FILE *stream = std::fopen(file.c_str(), "rb");
        ASSERT_NE(stream, nullptr);
        AtomNode parent{};
        parent.AtomSize = ReadBE32(c.file.data());
        CopyAtomName(parent.AtomName, "moov");
        CaptureStream out(stdout);
        const int32_t result = ReadChildAtoms(stream, &parent, 8);
        out.Text();
        EXPECT_EQ(result, c.result);
        ReleaseChildAtoms(&parent);
        std::fclose(stream);
    }
}

TEST(TreeWalk, FindChildAndWalkPath) {
    ReadTree tree(
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
