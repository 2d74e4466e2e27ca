// The catalogue against the table of atom types: every row's layout and
// rules, the special names, and the edge cases of lookups.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "atoms/atoms.h"

namespace {

struct Row {
    const char *name;
    uint32_t childOffset;
    uint32_t recordSize;
    uint8_t hasTable;
    uint8_t hasString;
    uint32_t entrySize;
    const char *rules;  // "name:max" with "r" for required, joined by '|'
};

// The 76 rows as the documented table gives them.
constexpr Row kRows[] = {
    {"co64", 0, 20, 1, 0, 8, ""},
    {"cprt", 0, 16, 0, 0, 0, ""},
    {"ctts", 0, 20, 1, 0, 8, ""},
    {"d263", 0, 16, 0, 0, 0, ""},
    {"damr", 0, 20, 0, 0, 0, ""},
    {"dimm", 0, 16, 0, 0, 0, ""},
    {"dinf", 8, 8, 0, 0, 0, "dref:1r"},
    {"dmax", 0, 12, 0, 0, 0, ""},
    {"dmed", 0, 16, 0, 0, 0, ""},
    {"dpnd", 0, 12, 1, 0, 4, ""},
    {"dref", 16, 16, 0, 0, 0, "url :2|urn :2"},
    {"drep", 0, 16, 0, 0, 0, ""},
    {"edts", 8, 8, 0, 0, 0, "elst:1r"},
    {"elst", 0, 20, 1, 0, 12, ""},
    {"esds", 0, 228, 0, 0, 0, ""},
    {"ftyp", 0, 20, 0, 0, 0, ""},
    {"hdlr", 0, 36, 0, 0, 0, ""},
    {"hinf", 8, 8, 0, 0, 0, "trpy:1|nump:1|tpyl:1|maxr:2|dmed:1|dimm:1|drep:1|tmin:1|tmax:1|pmax:1|dmax:1|payt:1"},
    {"hint", 0, 12, 1, 0, 4, ""},
    {"hmhd", 0, 28, 0, 0, 0, ""},
    {"hnti", 8, 8, 0, 0, 0, "sdp :1|rtp :1"},
    {"iods", 0, 44, 0, 0, 0, ""},
    {"ipir", 0, 12, 1, 0, 4, ""},
    {"maxr", 0, 16, 0, 0, 0, ""},
    {"mdat", 0, 8, 0, 0, 0, ""},
    {"mdhd", 0, 32, 0, 0, 0, ""},
    {"mdia", 8, 8, 0, 0, 0, "mdhd:1r|hdlr:1r|minf:1r"},
    {"mfhd", 0, 16, 0, 0, 0, ""},
    {"minf", 8, 8, 0, 0, 0, "vmhd:1|smhd:1|hmhd:1|nmhd:1|dinf:1r|stbl:1r"},
    {"moof", 8, 8, 0, 0, 0, "mfhd:1r|traf:2"},
    {"moov", 8, 8, 0, 0, 0, "mvhd:1r|iods:1|trak:2r|udta:2|mvex:1"},
    {"mp4a", 36, 36, 0, 0, 0, "esds:1r"},
    {"mp4s", 16, 16, 0, 0, 0, "esds:1r"},
    {"mp4v", 86, 88, 0, 0, 0, "esds:1r"},
    {"mpod", 0, 12, 1, 0, 4, ""},
    {"mvex", 8, 8, 0, 0, 0, "trex:2r"},
    {"mvhd", 0, 108, 0, 0, 0, ""},
    {"nmhd", 0, 12, 0, 0, 0, ""},
    {"nump", 0, 16, 0, 0, 0, ""},
    {"payt", 0, 12, 0, 1, 0, ""},
    {"pmax", 0, 12, 0, 0, 0, ""},
    {"rtp ", 24, 24, 0, 0, 0, "tims:1r|tsro:1|snro:1"},
    {"s263", 86, 88, 0, 0, 0, "d263:1r"},
    {"samr", 36, 36, 0, 0, 0, "damr:1r"},
    {"sawb", 36, 36, 0, 0, 0, "damr:1r"},
    {"sdp ", 0, 12, 0, 1, 1, ""},
    {"skip", 0, 8, 0, 0, 0, ""},
    {"smhd", 0, 16, 0, 0, 0, ""},
    {"snro", 0, 12, 0, 0, 0, ""},
    {"stbl", 8, 8, 0, 0, 0, "stsd:1r|stts:1r|ctts:1|stsz:1r|stsc:1r|stco:1|co64:1|stss:1|stsh:1|stdp:1"},
    {"stco", 0, 20, 1, 0, 4, ""},
    {"stdp", 0, 20, 1, 0, 4, ""},
    {"stsc", 0, 20, 1, 0, 12, ""},
    {"stsd", 16, 16, 0, 0, 0, "samr:2|mp4s:2|s263:2|rtp :2|mp4a:2|mp4v:2|sawb:2"},
    {"stsh", 0, 20, 1, 0, 8, ""},
    {"stss", 0, 20, 1, 0, 4, ""},
    {"stsz", 0, 24, 1, 0, 4, ""},
    {"stts", 0, 20, 1, 0, 8, ""},
    {"sync", 0, 12, 1, 0, 4, ""},
    {"tfhd", 0, 16, 0, 0, 0, ""},
    {"tims", 0, 12, 0, 0, 0, ""},
    {"tkhd", 0, 92, 0, 0, 0, ""},
    {"tmax", 0, 12, 0, 0, 0, ""},
    {"tmin", 0, 12, 0, 0, 0, ""},
    {"tpyl", 0, 16, 0, 0, 0, ""},
    {"traf", 8, 8, 0, 0, 0, "tfhd:1r|trun:2"},
    {"trak", 8, 8, 0, 0, 0, "tkhd:1r|tref:1|edts:1|mdia:1r|udta:2"},
    {"tref", 8, 8, 0, 0, 0, "dpnd:1|hint:1|ipir:1|mpod:1|sync:1"},
    {"trex", 0, 32, 0, 0, 0, ""},
    {"trpy", 0, 16, 0, 0, 0, ""},
    {"trun", 0, 16, 0, 0, 0, ""},
    {"tsro", 0, 12, 0, 0, 0, ""},
    {"udta", 8, 8, 0, 0, 0, "cprt:2|hnti:1|hinf:1"},
    {"url ", 0, 16, 0, 1, 1, ""},
    {"urn ", 0, 16, 0, 1, 1, ""},
    {"vmhd", 0, 20, 0, 0, 0, ""},
};

std::string RulesText(const AtomSchema &schema) {
    std::string out;
    for (uint32_t i = 0; i < schema.RuleCount; ++i) {
        const ChildRule &rule = schema.ChildRules[i];
        if (!out.empty()) out += '|';
        out += std::string(rule.ChildName, 4) + ':' + std::to_string(rule.MaxCount);
        if (rule.Required == 1) out += 'r';
    }
    return out;
}

TEST(Catalogue, EveryRowHasItsLayoutAndRules) {
    static_assert(sizeof(kRows) / sizeof(kRows[0]) == 76, "76 rows");
    // 76 distinct names, each found: with 76 rows in the library's table
    // there is no duplicate, and the bisection finds every row, so the
    // table is in its sorted order.
    std::set<std::string> names;
    for (const Row &row : kRows) {
        SCOPED_TRACE(row.name);
        names.insert(row.name);
        AtomSchema schema{};
        ASSERT_EQ(GetAtomSchemaByName(row.name, &schema), 1);
        EXPECT_EQ(IsKnownAtomName(row.name), 1);
        EXPECT_EQ(schema.ChildOffset, row.childOffset);
        EXPECT_EQ(schema.RecordSize, row.recordSize);
        EXPECT_EQ(schema.HasTable, row.hasTable);
        EXPECT_EQ(schema.HasString, row.hasString);
        EXPECT_EQ(schema.EntrySize, row.entrySize);
        EXPECT_EQ(RulesText(schema), row.rules);
    }
    EXPECT_EQ(names.size(), 76u);
}

TEST(Catalogue, SampleEntriesHaveTheirChildOffsets) {
    AtomSchema schema{};
    ASSERT_EQ(GetAtomSchemaByName("mp4v", &schema), 1);
    EXPECT_EQ(schema.ChildOffset, 86u);
    EXPECT_EQ(schema.RecordSize, 88u);
    ASSERT_EQ(GetAtomSchemaByName("mp4a", &schema), 1);
    EXPECT_EQ(schema.ChildOffset, 36u);
    EXPECT_EQ(schema.RecordSize, 36u);
}

TEST(Catalogue, FreeIsAcceptedButHasNoSchemaAndLeavesTheRecordAlone) {
    AtomSchema schema;
    std::memset(&schema, 0xA5, sizeof schema);
    AtomSchema before = schema;
    EXPECT_EQ(GetAtomSchemaByName("free", &schema), -1);
    EXPECT_EQ(std::memcmp(&schema, &before, sizeof schema), 0);
    EXPECT_EQ(IsKnownAtomName("free"), 1);
}

TEST(Catalogue, RootGivesZeroWithOnlyItsRules) {
    AtomSchema schema;
    std::memset(&schema, 0xA5, sizeof schema);
    EXPECT_EQ(GetAtomSchemaByName("root", &schema), 0);
    EXPECT_EQ(RulesText(schema), "ftyp:1r|moov:1r|mdat:2|free:2|skip:2|udta:2|moof:2");
    EXPECT_EQ(schema.ChildOffset, 0xA5A5A5A5u);  // untouched
    EXPECT_EQ(schema.RecordSize, 0xA5A5A5A5u);
    EXPECT_EQ(IsKnownAtomName("root"), 0);
}

TEST(Catalogue, SkipIsAnEightByteLeaf) {
    AtomSchema schema{};
    ASSERT_EQ(GetAtomSchemaByName("skip", &schema), 1);
    EXPECT_EQ(schema.RecordSize, 8u);
    EXPECT_EQ(schema.ChildOffset, 0u);
    EXPECT_EQ(schema.RuleCount, 0u);
}

TEST(Catalogue, HinfHasTheLongestRuleListWithRepeatableMaxr) {
    AtomSchema schema{};
    ASSERT_EQ(GetAtomSchemaByName("hinf", &schema), 1);
    EXPECT_EQ(schema.RuleCount, 12u);
    EXPECT_EQ(std::string(schema.ChildRules[3].ChildName, 4), "maxr");
    EXPECT_EQ(schema.ChildRules[3].MaxCount, 2u);
}

TEST(Catalogue, RulesBeyondTheCountStayAsTheCallerLeftThem) {
    AtomSchema schema;
    std::memset(&schema, 0x5A, sizeof schema);
    ASSERT_EQ(GetAtomSchemaByName("dinf", &schema), 1);
    EXPECT_EQ(schema.RuleCount, 1u);
    EXPECT_EQ(schema.ChildRules[1].MaxCount, 0x5A5A5A5Au);
}

TEST(Catalogue, UnknownNames) {
    const char *const kUnknown[] = {"MOOV", "Moov", "1oov", " moo", "\0oov", "moo\0",
                                    "mooz", "zzzz", "aaaa", "meta", "uuid", "\xff\xff\xff\xff"};
    for (const char *name : kUnknown) {
        SCOPED_TRACE(std::string(name, 4));
        AtomSchema schema{};
        EXPECT_EQ(IsKnownAtomName(name), -1);
        EXPECT_EQ(GetAtomSchemaByName(name, &schema), -1);
    }
}

TEST(Catalogue, HeadLengthsKeepTheCataloguesValuesWithAPointerBehind) {
    struct Case {
        const char *name;
        uint32_t head;
        size_t alloc;
    };
    const Case kCases[] = {
        {"stsz", 20, 20 + sizeof(void *)}, {"stts", 16, 16 + sizeof(void *)},
        {"url ", 12, 12 + sizeof(void *)}, {"sdp ", 8, 8 + sizeof(void *)},
        {"esds", 228, 228},                {"mp4v", 88, 88},
        {"ftyp", 20, 20},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.name);
        AtomSchema schema{};
        ASSERT_EQ(GetAtomSchemaByName(c.name, &schema), 1);
        EXPECT_EQ(RecordHeadLength(schema), c.head);
        EXPECT_EQ(RecordAllocSize(schema), c.alloc);
        AtomNode node{};
        CopyAtomName(node.AtomName, c.name);
        EXPECT_EQ(NodeHeadLength(&node), c.head);
    }
    AtomNode unknown{};
    CopyAtomName(unknown.AtomName, "free");
    EXPECT_EQ(NodeHeadLength(&unknown), kBareHeadLength);
}

}  // namespace
