// Payload records: heads copied as the file has them, tables and strings
// behind them, and the messages of short reads and misfitting tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "atoms/read_tree.h"
#include "support/test_support.h"

namespace {

using atoms_test::ReadTree;
using namespace testing_support;

const Bytes kMvhd = FullAtom("mvhd", 0, {Zeros(96)});

struct Loaded {
    explicit Loaded(const Bytes &file) {
        CaptureStream out(stdout);
        tree = std::make_unique<ReadTree>(file, true);
        printed = out.Text();
    }
    const AtomNode *Find(const char *name) const { return FindIn(tree->root.FirstAtom, name); }
    static const AtomNode *FindIn(const AtomNode *node, const char *name) {
        for (; node != nullptr; node = node->NextSibling) {
            if (AtomNameEquals(node->AtomName, name)) return node;
            if (const AtomNode *below = FindIn(node->FirstChild, name)) return below;
        }
        return nullptr;
    }
    std::unique_ptr<ReadTree> tree;
    std::string printed;
};

// A table atom inside an "stbl", so that the reader takes it as a child.
Bytes InStbl(const Bytes &atom) { return Atom("stbl", {atom}); }

TEST(Records, TablesLoadOnlyWhenHeadAndTableFillTheAtom) {
    struct Case {
        const char *what;
        Bytes atom;
        bool hasTable;
        std::string printed;
    };
    const Case kCases[] = {
        {"stts of 24 bytes with one entry", FullAtom("stts", 0, {U32(1), U32(5), U32(100)}), true,
         ""},
        {"stts of 24 bytes that claims two entries", FullAtom("stts", 0, {U32(2), U32(5), U32(100)}),
         false, "error to read atom[stts] data from file\n"},
        {"count whose 32-bit product wraps to a fit",
         FullAtom("stts", 0, {U32(0x20000001u), U32(5), U32(100)}), false,
         "error to read atom[stts] data from file\n"},
        {"stsz with a constant size has no table and no message",
         FullAtom("stsz", 0, {U32(4), U32(1000)}), false, ""},
        {"stsz without a size and without its table",
         FullAtom("stsz", 0, {U32(0), U32(1000)}), false,
         "error to read atom[stsz] data from file\n"},
        {"stsz with no samples gets an empty block", FullAtom("stsz", 0, {U32(0), U32(0)}), true,
         ""},
        {"stco with three offsets", FullAtom("stco", 0, {U32(3), U32(1), U32(2), U32(3)}), true, ""},
        {"stsc entry of 12 bytes", FullAtom("stsc", 0, {U32(1), U32(1), U32(2), U32(1)}), true, ""},
        {"co64 loads when its length fits", FullAtom("co64", 0, {U32(1), U32(0), U32(8)}), true,
         ""},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        Loaded loaded(InStbl(c.atom));
        const AtomNode *atom = loaded.Find(std::string(c.atom.begin() + 4, c.atom.begin() + 8).c_str());
        ASSERT_NE(atom, nullptr);
        EXPECT_EQ(loaded.printed, c.printed);
        // The head is the file's bytes; the table follows it.
        const size_t head = NodeHeadLength(atom);
        EXPECT_EQ(std::memcmp(atom->realStructure, c.atom.data(), std::min(head, c.atom.size())), 0);
        EXPECT_EQ(GetBE32(atom->realStructure, field::kHeadSize), atom->AtomSize);
        void *table = GetRecordPointer(atom);
        EXPECT_EQ(table != nullptr, c.hasTable);
        if (table != nullptr) {
            EXPECT_EQ(std::memcmp(table, c.atom.data() + head, c.atom.size() - head), 0);
        }
    }
}

TEST(Records, Strings) {
    struct Case {
        const char *what;
        Bytes dref;
        bool hasString;
        std::string text;
    };
    const Case kCases[] = {
        {"url of 12 bytes, as the library writes it",
         FullAtom("dref", 0, {U32(1), FullAtom("url ", 1)}), false, ""},
        {"url of 20 bytes has its 8 bytes, no terminator added",
         FullAtom("dref", 0, {U32(1), FullAtom("url ", 0, {Text("abcdefgh")})}), true,
         "abcdefgh"},
        {"url shorter than its head has no string",
         FullAtom("dref", 0, {U32(1), AtomWithSize(10, "url ", {Zeros(2)}), Zeros(8)}), false, ""},
        {"urn keeps name and location together",
         FullAtom("dref", 0, {U32(1), FullAtom("urn ", 0, {Text("n"), U8(0), Text("loc")})}), true,
         std::string("n\0loc", 5)},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        Loaded loaded(c.dref);
        const AtomNode *dref = loaded.Find("dref");
        ASSERT_NE(dref, nullptr);
        const AtomNode *entry = dref->FirstChild;
        ASSERT_NE(entry, nullptr);
        const char *text = static_cast<const char *>(GetRecordPointer(entry));
        EXPECT_EQ(text != nullptr, c.hasString);
        if (text != nullptr) {
            EXPECT_EQ(std::string(text, c.text.size()), c.text);
        }
    }
}

TEST(Records, SdpStringStartsBehindTheName) {
    Loaded loaded(Atom("udta", {Atom("hnti", {Atom("sdp ", {Text("v=0")})})}));
    const AtomNode *sdp = loaded.Find("sdp ");
    ASSERT_NE(sdp, nullptr);
    const char *text = static_cast<const char *>(GetRecordPointer(sdp));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text, 3), "v=0");
}

TEST(Records, EsdsHeadReadsOnBehindAShortAtom) {
    const Bytes esds = FullAtom("esds", 0, {Zeros(28)});  // 40 bytes
    const Bytes file = Atom("moov", {Atom("mp4a", {Zeros(28), esds}), kMvhd, kMvhd, kMvhd});
    Loaded loaded(file);
    const AtomNode *atom = loaded.Find("esds");
    ASSERT_NE(atom, nullptr);
    EXPECT_EQ(loaded.printed, "");
    EXPECT_EQ(GetBE32(atom->realStructure, 0), 40u);
    // The record runs on into the "mvhd" behind the atom.
    EXPECT_EQ(std::memcmp(atom->realStructure + 40, kMvhd.data(), 8), 0);
}

TEST(Records, AtomCloseToTheEndGivesOneMessageAndKeepsWhatCame) {
    const Bytes esds = FullAtom("esds", 0, {Hex("03 19 00 01 00")});
    const Bytes file = Atom("moov", {kMvhd, Atom("mp4a", {Zeros(28), esds})});
    Loaded loaded(file);
    EXPECT_EQ(loaded.printed, "Read atom[esds] data from file error!\n");
    const AtomNode *atom = loaded.Find("esds");
    ASSERT_NE(atom, nullptr);
    EXPECT_EQ(std::memcmp(atom->realStructure, esds.data(), esds.size()), 0);
    EXPECT_EQ(atom->realStructure[esds.size()], 0);
}

TEST(Records, TableCutByTheEndOfTheFileHasAZeroedTail) {
    Bytes stts = FullAtom("stts", 0, {U32(2), U32(7), U32(9), U32(0xAAAAAAAAu), U32(0xBBBBBBBBu)});
    Bytes file = InStbl(stts);
    file.resize(file.size() - 6);
    Loaded loaded(file);
    const AtomNode *atom = loaded.Find("stts");
    ASSERT_NE(atom, nullptr);
    const uint8_t *table = static_cast<const uint8_t *>(GetRecordPointer(atom));
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(GetBE32(table, 4), 9u);
    EXPECT_EQ(GetBE32(table, 8), 0xAAAA0000u);
    EXPECT_EQ(GetBE32(table, 12), 0u);
}

TEST(Records, TableLongerThanTheWholeFileIsRefused) {
    const uint32_t count = 0x10000000u;
    Bytes file = InStbl(AtomWithSize(16 + count * 8, "stts", {U32(0), U32(count), Zeros(8)}));
    Loaded loaded(file);
    const AtomNode *atom = loaded.Find("stts");
    ASSERT_NE(atom, nullptr);
    EXPECT_EQ(GetRecordPointer(atom), nullptr);
    EXPECT_EQ(loaded.printed, "error to read atom[stts] data from file\n");
}

TEST(Records, UnknownAndFreeAtomsHaveABareHead) {
    Loaded loaded(Cat({Atom("abcd", {Zeros(40)}), Atom("moov", {Atom("free", {Zeros(4)})})}));
    for (const char *name : {"abcd", "free"}) {
        const AtomNode *atom = loaded.Find(name);
        ASSERT_NE(atom, nullptr);
        ASSERT_NE(atom->realStructure, nullptr);
        EXPECT_EQ(std::memcmp(atom->realStructure + 4, name, 4), 0);
        EXPECT_EQ(GetRecordPointer(atom), nullptr);
    }
}

TEST(Records, ReleaseChildAtomsKeepsTheAtomItself) {
    Loaded loaded(Atom("moov", {kMvhd, Atom("trak", {FullAtom("tkhd", 0, {Zeros(80)})})}));
    AtomNode *moov = loaded.tree->root.FirstAtom;
    ReleaseChildAtoms(moov);
    moov->FirstChild = nullptr;
    EXPECT_NE(moov->realStructure, nullptr);
    EXPECT_STREQ(moov->AtomName, "moov");
}

}  // namespace
