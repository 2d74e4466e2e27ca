// The atom tree of hand-built byte images: which atoms get a node, what
// ends a scan, the records copied and loaded behind each head, the reader's
// and the validation's messages; each family listed whole against a golden
// file in tests/data/read/.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "support/listing.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

const Bytes kFtyp = Atom("ftyp", {Text("isom"), U32(0), Text("isom")});
const Bytes kMvhd = FullAtom("mvhd", 0, {Zeros(96)});
const Bytes kTkhd = FullAtom("tkhd", 0, {Zeros(80)});
const Bytes kStbl = Atom("stbl", {Atom("stsd", {U32(0), U32(0)}), Atom("stts", {U32(0), U32(0)}),
                                  Atom("stsz", {U32(0), U32(0), U32(0)}),
                                  Atom("stsc", {U32(0), U32(0)})});

// Reads `bytes` as MP4FileOpen's first steps do: the tree, its records,
// then the validation. Everything printed goes into the listing.
std::string ReadAndList(const Bytes &bytes) {
    TempFile file(bytes);
    Root_atom root{};
    root.FileStream = std::fopen(file.c_str(), "rb");
    root.FileSize = uint32_t(bytes.size());
    CaptureStream out(stdout);
    const int32_t result = ReadAtomTree(&root);
    if (result == 1 && AllocTreeRecords(&root) == 1) ExtractTreeRecords(&root);
    const std::string read = out.Text();
    CaptureStream checked(stdout);
    CheckAtomTree(&root);
    std::string text = "read " + std::to_string(result) + " " + OneLine(read) + "\n" +
                       ListAtoms(root.FirstAtom) + "check " + OneLine(checked.Text()) + "\n";
    ReleaseAtomList(root.FirstAtom);
    std::fclose(root.FileStream);
    return text;
}

TEST(AtomTree, ScansRecordsAndMessagesMatchTheGolden) {
    const Bytes mp4v = Atom("mp4v", {Zeros(78), Atom("esds", {Zeros(4)})});
    const Bytes esds = FullAtom("esds", 0, {Hex("03 19 00 01 00")});
    Bytes cutStts = Atom("stbl", {FullAtom("stts", 0, {U32(2), U32(7), U32(9), U32(0xAAAAAAAA),
                                                       U32(0xBBBBBBBB)})});
    cutStts.resize(cutStts.size() - 6);
    struct Case {
        const char *what;
        Bytes file;
    };
    std::vector<Case> cases = {
        {"one ftyp", kFtyp},
        {"short head behind the last atom", Cat({kFtyp, Zeros(5)})},
        {"last atom past the end, as a truncated mdat", Cat({kFtyp, AtomWithSize(5000, "mdat", {Zeros(10)})})},
        {"unknown top-level atoms, a message each", Cat({Atom("abcd", {kMvhd}), kFtyp, Atom("XYZW"), Atom("mdat")})},
        {"free at the top level", Cat({Atom("free", {Zeros(3)}), kFtyp})},
        {"size beyond 32 bits ends the scan", Cat({kFtyp, AtomWithSize(0xFFFFFFFF, "mdat", {Zeros(8)}), Atom("moov")})},
        {"stsd with count 1 and two entries", Atom("stsd", {U32(0), U32(1), mp4v, mp4v})},
        {"unknown child ends its container", Cat({Atom("moov", {kMvhd, Atom("trak", {kTkhd, Atom("zzzz"), Atom("mdia")})}), Atom("mdat")})},
        {"free inside a container", Atom("moov", {kMvhd, Atom("free", {Zeros(4)}), Atom("trak")})},
        {"moov inside moov", Atom("moov", {Atom("moov", {kMvhd})})},
        {"dref of 16 bytes has no children", Atom("dinf", {AtomWithSize(16, "dref", {U32(0), U32(1)}), Atom("url ", {U32(1)})})},
        {"short head inside a container", Cat({kFtyp, AtomWithSize(200, "moov", {kMvhd, Zeros(3)})})},
        {"child past its parent", Cat({Atom("moov", {AtomWithSize(40, "trak", {Zeros(4)})}), Atom("mdat", {Zeros(40)})})},
        {"child size overflowing 32 bits", Cat({Atom("moov", {kMvhd, AtomWithSize(0xFFFFFFF8, "skip"), kMvhd}), Atom("mdat")})},
        {"child container past the file", Cat({Atom("moov", {kMvhd, AtomWithSize(0xFFFFFFF8, "udta"), kMvhd}), Atom("mdat")})},
        {"stsd scans from 16, mp4v from 86", Atom("stsd", {Text("stsdstsd"), Atom("mp4v", {Zeros(70), Text("esds"), Zeros(4), Atom("esds")})})},
        {"stts with one entry", Atom("stbl", {FullAtom("stts", 0, {U32(1), U32(5), U32(100)})})},
        {"stts claiming two entries", Atom("stbl", {FullAtom("stts", 0, {U32(2), U32(5), U32(100)})})},
        {"count whose 32-bit product wraps to a fit", Atom("stbl", {FullAtom("stts", 0, {U32(0x20000001), U32(5), U32(100)})})},
        {"stsz constant, no table", Atom("stbl", {FullAtom("stsz", 0, {U32(4), U32(1000)})})},
        {"stsz without its table", Atom("stbl", {FullAtom("stsz", 0, {U32(0), U32(1000)})})},
        {"stsz of no samples, stco, stsc, co64", Atom("stbl", {FullAtom("stsz", 0, {U32(0), U32(0)}), FullAtom("stco", 0, {U32(3), U32(1), U32(2), U32(3)}), FullAtom("stsc", 0, {U32(1), U32(1), U32(2), U32(1)}), FullAtom("co64", 0, {U32(1), U32(0), U32(8)})})},
        {"table longer than the file", Atom("stbl", {AtomWithSize(16 + 0x80000000u, "stts", {U32(0), U32(0x10000000), Zeros(8)})})},
        {"table cut by the end of the file", cutStts},
        {"table cut, as long as the whole file", Atom("stbl", {AtomWithSize(48, "stts", {U32(0), U32(4), Zeros(8)})})},
        {"url strings", FullAtom("dref", 0, {U32(1), FullAtom("url ", 1), FullAtom("url ", 0, {Text("abcdefgh")}), AtomWithSize(10, "url ", {Zeros(2)}), Zeros(6)})},
        {"urn and sdp strings", Cat({FullAtom("dref", 0, {U32(1), FullAtom("urn ", 0, {Text("n"), U8(0), Text("loc")})}), Atom("udta", {Atom("hnti", {Atom("sdp ", {Text("v=0")})})})})},
        {"esds head reads on behind a short atom", Atom("moov", {Atom("mp4a", {Zeros(28), FullAtom("esds", 0, {Zeros(28)})}), kMvhd, kMvhd, kMvhd})},
        {"esds close to the end", Atom("moov", {kMvhd, Atom("mp4a", {Zeros(28), esds})})},
        {"validation: free child, two tkhd", Cat({Atom("moov", {Atom("free"), Atom("trak", {kTkhd, kTkhd, Atom("mdia")})})})},
        {"validation: missing stbl, stray dinf child", Atom("minf", {Atom("vmhd"), Atom("dinf", {Atom("dref", {U32(0), U32(1)}), Atom("skip")})})},
        {"validation: vmhd and smhd together", Atom("minf", {Atom("vmhd"), Atom("smhd"), Atom("dinf"), kStbl})},
        {"validation: udta alone, then two elst", Cat({Atom("udta"), Atom("edts", {Atom("elst", {U32(0), U32(0)}), Atom("elst", {U32(0), U32(0)})})})},
        {"validation: udta in moov, two moov", Cat({Atom("moov", {kMvhd, Atom("trak"), Atom("udta")}), Atom("moov", {kMvhd, Atom("trak")})})},
        {"validation: minf without stbl in mdia", Atom("mdia", {Atom("minf", {Atom("dinf")})})},
        {"validation: udta with two hnti", Atom("moov", {kMvhd, Atom("trak"), Atom("udta", {Atom("hnti"), Atom("hnti")})})},
        {"validation: hinf rules", Atom("hinf", {Atom("maxr", {Zeros(8)}), Atom("maxr", {Zeros(8)}), Atom("payt", {Zeros(4)}), Atom("payt", {Zeros(4)}), Atom("dmax", {Zeros(4)})})},
        {"validation: rtp and mvex", Cat({Atom("rtp ", {Zeros(16), Atom("tsro")}), Atom("mvex", {Atom("trex"), Atom("trex")}), Atom("moof", {Atom("traf")})})},
    };
    for (uint32_t size : {0u, 7u}) {
        cases.push_back({size ? "top-level size 7" : "top-level size 0", Cat({kFtyp, AtomWithSize(size, "mdat", {Zeros(16)})})});
        cases.push_back({size ? "child size 7" : "child size 0", Cat({Atom("moov", {kMvhd, AtomWithSize(size, "trak", {Zeros(8)}), kMvhd}), Atom("mdat")})});
    }
    std::string text;
    for (const Case &c : cases) text += std::string("== ") + c.what + "\n" + ReadAndList(c.file);
    ExpectGolden("read/atom_tree.txt", text);
}

// What the catalogue tells the reader, the validation and the writer about
// each name: where children start, the head kept, the table entries, the
// child rules.
TEST(AtomTree, CatalogueRowsMatchTheGolden) {
    // The names are the golden's own first column: every catalogue name, the
    // two special ones, and unknown ones.
    std::ifstream golden(std::string(MP4CORE_TEST_DATA_DIR) + "/read/catalogue.txt");
    std::vector<std::string> names;
    for (std::string line; std::getline(golden, line);) names.push_back(line.substr(1, 4));
    ASSERT_GT(names.size(), 80u);
    std::string text;
    for (const std::string &shown : names) {
        const std::string bytes = shown == "...." ? "\xff\xff\xff\xff" : shown == "moo." ? std::string("moo\0", 4) : shown;
        const char *name = bytes.c_str();
        AtomSchema schema;
        std::memset(&schema, 0xA5, sizeof schema);
        const int32_t found = GetAtomSchemaByName(name, &schema);
        text += "[" + OneLine(std::string(name, 4)) + "] " + std::to_string(found) + " known " +
                std::to_string(IsKnownAtomName(name));
        if (found == 1) {
            text += " children@" + std::to_string(schema.ChildOffset) + " record " +
                    std::to_string(schema.RecordSize) + " head " +
                    std::to_string(RecordHeadLength(schema)) +
                    (RecordAllocSize(schema) == RecordHeadLength(schema) + sizeof(void *) ? " +pointer" : "") +
                    " table " + std::to_string(schema.HasTable) + " string " +
                    std::to_string(schema.HasString) + " entry " + std::to_string(schema.EntrySize);
        }
        for (uint32_t i = 0; found >= 0 && i < schema.RuleCount; ++i) {
            const ChildRule &rule = schema.ChildRules[i];
            text += " " + std::string(rule.ChildName, 4) + ":" + std::to_string(rule.MaxCount) +
                    (rule.Required == 1 ? "r" : "");
        }
        text += "\n";
    }
    ExpectGolden("read/catalogue.txt", text);
}

// The trees the writer starts from, one per track type, and the file's top
// level; every template passes the validation.
TEST(AtomTree, TemplatesMatchTheGolden) {
    std::string text;
    for (int32_t type : {1, 2, 3, 4, 5, 0, 6, -1}) {
        for (uint8_t composition : {0, 1}) {
            AtomNode sentinel{};
            AtomNode *root = &sentinel;
            const int32_t result = CreateTrackTree(&root, type, nullptr, nullptr, composition);
            text += "== type " + std::to_string(type) + " composition " +
                    std::to_string(composition) + ": " + std::to_string(result) + "\n";
            if (root == &sentinel) continue;
            CaptureStream out(stdout);
            const bool passed = CheckAtom(root);
            text += ListAtoms(root) + "check " + std::to_string(passed) + " " + out.Text() + "\n";
            ReleaseAtomList(root);
        }
    }
    Root_atom file{};
    text += "== file " + std::to_string(CreateFileTree(&file)) + "\n" + ListAtoms(file.FirstAtom);
    ReleaseAtomList(file.FirstAtom);
    // Children follow the rows whatever order the parents' rows have.
    TemplateRow rows[] = {{nullptr, 4, ""},     {nullptr, 0, "moov"}, {nullptr, 1, "trak"},
                          {nullptr, 1, "mvhd"}, {nullptr, 2, "tkhd"}};
    AtomNode *built = nullptr;
    text += "== rows " + std::to_string(BuildAtomTree(&built, rows)) + "\n" + ListAtoms(built);
    ReleaseAtomList(built);
    ExpectGolden("read/templates.txt", text);
}

// 100000 nested containers: the scan stops at the depth bound, quickly and
// with the stack intact.
TEST(AtomTree, DeepNestingEndsAtTheDepthBoundQuickly) {
    constexpr uint32_t kLevels = 100000;
    Bytes file;
    for (uint32_t level = 0; level < kLevels; ++level) {
        const Bytes head = Cat({U32((kLevels - level) * 8), Text("moov")});
        file.insert(file.end(), head.begin(), head.end());
    }
    const auto started = std::chrono::steady_clock::now();
    const std::string text = ReadAndList(file);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    const std::string deepest = "\n" + std::string(2 * kMaxAtomDepth, ' ') + "[moov] @";
    EXPECT_NE(text.find(deepest + std::to_string(kMaxAtomDepth * 8) + " "), std::string::npos);
    EXPECT_EQ(text.find(" " + deepest.substr(1)), std::string::npos) << "nothing deeper";
}

}  // namespace
