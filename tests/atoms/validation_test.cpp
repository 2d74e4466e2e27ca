// Validation messages: each case of the walk, the order of messages, and
// what the walk leaves alone.
#include <gtest/gtest.h>

#include <string>

#include "atoms/read_tree.h"
#include "support/test_support.h"

namespace {

using atoms_test::ReadTree;
using namespace testing_support;

const Bytes kFtyp = Atom("ftyp", {Text("isom"), U32(0), Text("isom")});
const Bytes kMvhd = FullAtom("mvhd", 0, {Zeros(96)});
const Bytes kTkhd = FullAtom("tkhd", 0, {Zeros(80)});
const Bytes kStbl = Atom("stbl", {Atom("stsd", {U32(0), U32(0)}), Atom("stts", {U32(0), U32(0)}),
                                  Atom("stsz", {U32(0), U32(0), U32(0)}),
                                  Atom("stsc", {U32(0), U32(0)})});

std::string Validate(const Bytes &file) {
    CaptureStream quiet(stdout);
    ReadTree tree(file);
    quiet.Text();
    CaptureStream out(stdout);
    const uint32_t result = CheckAtomTree(&tree.root);
    std::string printed = out.Text();
    EXPECT_EQ(result, 1u);
    return printed;
}

TEST(Validation, Messages) {
    struct Case {
        const char *what;
        Bytes file;
        std::string printed;
    };
    const Case kCases[] = {
        {"moov with mvhd and trak: iods is optional", Atom("moov", {kMvhd, Atom("trak")}), ""},
        {"a free child is no rule's child",
         Atom("moov", {Atom("free"), Atom("trak")}),
         "\n There exist at lest one atom not belong to this atom[moov] \n"},
        {"stbl without stco or co64", kStbl, ""},
        {"two tkhd in a trak", Atom("trak", {kTkhd, kTkhd, Atom("mdia")}),
         "\n This atom[trak] must only have one such type of atom[tkhd] \n"},
        {"required child missing, messages from below first",
         Atom("minf", {Atom("vmhd"), Atom("dinf", {Atom("dref", {U32(0), U32(1)}), Atom("skip")})}),
         "\n There exist at lest one atom not belong to this atom[dinf] \n"
         "\n This atom[minf] must have such type of atom[stbl] \n"},
        {"vmhd and smhd together pass", Atom("minf", {Atom("vmhd"), Atom("smhd"), Atom("dinf"), kStbl}),
         ""},
        {"top-level udta without children", Atom("udta"),
         "\n Without required child atom at [udta] \n"},
        {"udta without children inside moov", Atom("moov", {kMvhd, Atom("trak"), Atom("udta")}), ""},
        {"top-level leaves", Cat({kFtyp, Atom("mdat", {Zeros(4)})}), ""},
        {"the top level's own rules are not applied",
         Cat({Atom("moov", {kMvhd, Atom("trak")}), Atom("moov", {kMvhd, Atom("trak")})}), ""},
        {"unknown and free top-level atoms give no message",
         Cat({Atom("abcd"), Atom("free")}), ""},
        {"first rule that fails is the only message",
         Atom("mdia", {Atom("minf", {Atom("dinf")})}),
         "\n This atom[minf] must have such type of atom[stbl] \n"
         "\n This atom[mdia] must have such type of atom[mdhd] \n"},
        {"walk goes on with the next top-level atom",
         Cat({Atom("udta"), Atom("edts", {Atom("elst", {U32(0), U32(0)}), Atom("elst", {U32(0), U32(0)})})}),
         "\n Without required child atom at [udta] \n"
         "\n This atom[edts] must only have one such type of atom[elst] \n"},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Validate(c.file), c.printed);
    }
}

// The result tells whether the atom passed. A leaf with children can only
// come from a built tree.
TEST(Validation, ResultTellsWhetherTheAtomPassed) {
    ReadTree good(Atom("moov", {kMvhd, Atom("trak")}));
    ReadTree bad(Atom("moov", {kMvhd}));
    AtomNode child{}, mdat{};
    CopyAtomName(child.AtomName, "mvhd");
    CopyAtomName(mdat.AtomName, "mdat");
    mdat.FirstChild = &child;
    CaptureStream out(stdout);
    const bool goodPassed = CheckAtom(good.root.FirstAtom);
    const bool badPassed = CheckAtom(bad.root.FirstAtom);
    const bool leafPassed = CheckAtom(&mdat);
    EXPECT_TRUE(goodPassed);
    EXPECT_FALSE(badPassed);
    EXPECT_FALSE(leafPassed);
    EXPECT_EQ(out.Text(), "\n This atom[moov] must have such type of atom[trak] \n"
                          "\n This Atom[mdat] is not a container atom \n");
}

}  // namespace
