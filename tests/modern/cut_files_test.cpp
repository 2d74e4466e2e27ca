// Where the tree reader ends its scans. Cut files on the modern reader: a
// top-level head that can't be taken, or an atom that reaches past the end
// of the file, is where the file ends, and the open gives what the file cut
// just before that atom gives. Atoms that reach past their parents: the
// tree stays in proportion to the file on both readers.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "atoms/atoms.h"
#include "mp4core.h"
#include "support/mini_mp4.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

// The open's result, then each track's ID, sample count and fragment count.
std::string OpenSummary(const Bytes &bytes) {
    OpenedModern open(bytes, MP4_OPEN_MODERN, MP4_TABLE_MARKS);
    std::string summary = std::to_string(open.result);
    uint32_t count = 0;
    MP4GetTrackCount(open.handle, &count);
    for (uint32_t i = 0; i < count; ++i) {
        MP4TrackInfo info{};
        MP4GetTrackInfo(open.handle, i, &info);
        summary += " " + std::to_string(info.TrackId) + ":" + std::to_string(info.SampleCount) + "/" + std::to_string(info.FragmentCount);
    }
    return summary;
}

// Where the last top-level atom named `name` begins.
size_t LastTopLevel(const Bytes &bytes, const char *name) {
    size_t last = 0;
    for (size_t at = 0; at + 8 <= bytes.size();) {
        if (std::string(bytes.begin() + long(at) + 4, bytes.begin() + long(at) + 8) == name) last = at;
        at += GetU32(bytes, at);
    }
    return last;
}

Bytes Prefix(const Bytes &bytes, size_t count) {
    return Bytes(bytes.begin(), bytes.begin() + long(count));
}

Bytes Overwrite(Bytes bytes, size_t at, const Bytes &with) {
    std::copy(with.begin(), with.end(), bytes.begin() + long(at));
    return bytes;
}

TEST(ModernCutFiles, OpenAsTheFileCutBeforeTheAtomThatCantBeTaken) {
    const Bytes good = ReadWholeFile(FixturePath("modern/frag_keyframe.mp4"));
    const size_t moof = LastTopLevel(good, "moof"), mfra = LastTopLevel(good, "mfra");
    ASSERT_GT(moof, 0u);
    ASSERT_GT(mfra, moof);
    struct Case {
        std::string name;
        Bytes file;
        size_t cutBefore;      // the file that gives the same open
        std::string expected;  // instead, where set
    };
    std::vector<Case> cases = {
        {"one stray byte after the last atom", Cat({good, U8(0)}), good.size(), ""},
        {"a cut index at the end", Prefix(good, good.size() - 5), mfra, ""},
        {"size 0 still runs to the end of the file", Overwrite(good, mfra, U32(0)), good.size(), ""},
        {"a moof that reaches one byte past the end",
         Overwrite(good, moof, U32(uint32_t(good.size() - moof + 1))), moof, ""},
        {"a moof whose 64-bit size passes the end of 64 bits",
         Overwrite(good, moof, Cat({U32(1), Text("moof"), U32(~0u), U32(~0u)})), moof, ""},
        {"junk only", Text("not an MP4 file, only words"), 0, "-96"},
        {"a first atom cut", Cat({U32(1000), Text("ftyp"), Zeros(8)}), 0, "-96"},
    };
    for (size_t k = 1; k <= 15; ++k)
        cases.push_back({"cut " + std::to_string(k) + " bytes into a moof head", Prefix(good, moof + k),
                         moof, ""});
    for (uint32_t size = 2; size <= 7; ++size)
        cases.push_back({"a moof of stored size " + std::to_string(size),
                         Overwrite(good, moof, U32(size)), moof, ""});
    for (uint32_t size : {0u, 8u, 15u})
        cases.push_back({"a moof of 64-bit size " + std::to_string(size),
                         Overwrite(good, moof, Cat({U32(1), Text("moof"), U32(0), U32(size)})), moof, ""});
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(OpenSummary(c.file),
                  c.expected.empty() ? OpenSummary(Prefix(good, c.cutBefore)) : c.expected);
    }
    // The file cut before the last "moof" keeps the fragment before it.
    EXPECT_EQ(OpenSummary(Prefix(good, moof)), "1 1:24/1 2:41/1");
}

uint64_t CountNodes(const AtomNode *first) {
    uint64_t count = 0;
    for (const AtomNode *node = first; node != nullptr; node = node->NextSibling)
        count += 1 + CountNodes(node->FirstChild);
    return count;
}

// Files whose atoms don't nest: the trees of both readers stay within
// their bounds, and are read in milliseconds.
TEST(AtomTree, AtomsThatDontNestKeepTheTreeInProportionToTheFile) {
    // Heads of "trak" every 8 bytes inside a "moov", 32 and 16 bytes long by
    // turns: each 32-byte one holds two, the first of which reaches past it
    // and holds the second again. Read as it says, 1.3 KB make 5.8 million
    // nodes.
    constexpr uint32_t kHeads = 160;
    Bytes overlapping = Cat({U32(8 * (kHeads + 1)), Text("moov")});
    for (uint32_t k = 1; k <= kHeads; ++k) {
        const Bytes head = Cat({U32(k % 2 == 1 ? 32 : 16), Text("trak")});
        overlapping.insert(overlapping.end(), head.begin(), head.end());
    }
    const Bytes ftyp = Atom("ftyp", {Text("isom"), U32(0)});
    struct Case {
        const char *name;
        Bytes file;
        uint64_t maxNodes;
    } cases[] = {
        {"atoms reaching past their parents", overlapping, 1 + overlapping.size() / 8},
        // The scan would go on 8 bytes before the head, at the "moov" again.
        {"a 64-bit size that wraps around", Cat({ftyp, Atom("moov", {U32(1), Text("free"), U32(~0u),
                                                                     U32(~0u - 7), Atom("free")})}),
         2},
    };
    for (const Case &c : cases) {
        const TempFile path(c.file);
        for (const TreeRules &rules : {kClassicTreeRules, kModernTreeRules}) {
            SCOPED_TRACE(std::string(c.name) + (rules.Reader == kModernReader ? ", modern" : ", classic"));
            Root_atom root{};
            root.FileStream = std::fopen(path.c_str(), "rb");
            root.FileSize = c.file.size();
            testing::internal::CaptureStdout();
            const auto started = std::chrono::steady_clock::now();
            EXPECT_EQ(ReadAtomTree(&root, rules), 1);
            EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
            testing::internal::GetCapturedStdout();
            EXPECT_LE(CountNodes(root.FirstAtom), c.maxNodes);
            ReleaseAtomList(root.FirstAtom);
            std::fclose(root.FileStream);
        }
    }
}

}  // namespace
