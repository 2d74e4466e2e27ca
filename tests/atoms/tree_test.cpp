// The atom tree of hand-built byte images: which atoms get a node, what
// ends a scan, the records copied and loaded behind each head, the reader's
// and the validation's messages; each family listed whole against a golden
// file in tests/data/read/.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "support/listing.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

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
    std::string text;
    for (const auto &row : ReadRows("read/atom_tree.rows")) {
        text += "== " + row.at(0) + "\n" + ReadAndList(Image(row.at(1)));
    }
    ExpectGolden("read/atom_tree.txt", text);
}

// What the catalogue tells the reader, the validation and the writer about
// each name: where children start, the head kept, the table entries, the
// child rules.
TEST(AtomTree, CatalogueRowsMatchTheGolden) {
    // The names are the golden's own first column: every catalogue name, the
    // two special ones, and unknown ones.
    std::vector<std::string> names;
    for (const auto &row : ReadRows("read/catalogue.txt")) names.push_back(row.at(0).substr(1, 4));
    ASSERT_GT(names.size(), 80u);
    std::string text;
    for (const std::string &shown : names) {
        const std::string bytes = shown == "...." ? "\xff\xff\xff\xff" : shown == "moo." ? std::string("moo\0", 4) : shown;
        const char *name = bytes.c_str();
        AtomSchema schema;
        std::memset(&schema, 0xA5, sizeof schema);
        int32_t found = GetAtomSchemaByName(name, &schema);
        text += Format("[%s] %d known %d", OneLine(std::string(name, 4)).c_str(), found, int(IsKnownAtomName(name)));
        // A row of the modern reader alone also shows its version 1 sizes and where its children go.
        const bool modern = found < 0 && (found = GetAtomSchemaByName(name, &schema, kModernReader)) == 1;
        if (found == 1)
            text += Format(" children@%u record %u head %u%s table %u string %u entry %u", schema.ChildOffset,
                           schema.RecordSize, unsigned(RecordHeadLength(schema)),
                           RecordAllocSize(schema) == RecordHeadLength(schema) + sizeof(void *) ? " +pointer" : "",
                           schema.HasTable, schema.HasString, schema.EntrySize);
        if (modern)
            text += Format(" modern: v1 record %u entry %u placement %d", schema.RecordSizeV1, schema.EntrySizeV1,
                           int(schema.Placement));
        for (uint32_t i = 0; found >= 0 && i < schema.RuleCount; ++i)
            text += Format(" %.4s:%u%s", schema.ChildRules[i].ChildName, schema.ChildRules[i].MaxCount,
                           schema.ChildRules[i].Required == 1 ? "r" : "");
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
    const int32_t made = CreateFileTree(&file);  // before the listing: the operands of + have no order
    text += "== file " + std::to_string(made) + "\n" + ListAtoms(file.FirstAtom);
    ReleaseAtomList(file.FirstAtom);
    // Children follow the rows whatever order the parents' rows have.
    TemplateRow rows[] = {{nullptr, 4, ""},     {nullptr, 0, "moov"}, {nullptr, 1, "mvhd"},
                          {nullptr, 4, "tkhd"}, {nullptr, 1, "trak"}};
    AtomNode *tree = nullptr;
    const int32_t built = BuildAtomTree(&tree, rows);
    text += "== rows " + std::to_string(built) + "\n" + ListAtoms(tree);
    ReleaseAtomList(tree);
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
