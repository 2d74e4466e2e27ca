// The catalogue's look-ups: every name is found (the table is sorted for
// the bisection), the rows that the other walks lean on, the special names,
// and what a look-up leaves alone.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "atoms/atoms.h"

namespace {

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

TEST(Catalogue, EveryKnownNameIsFound) {
    const char *const kNames[] = {
        "co64", "cprt", "ctts", "d263", "damr", "dimm", "dinf", "dmax", "dmed", "dpnd", "dref",
        "drep", "edts", "elst", "esds", "ftyp", "hdlr", "hinf", "hint", "hmhd", "hnti", "iods",
        "ipir", "maxr", "mdat", "mdhd", "mdia", "mfhd", "minf", "moof", "moov", "mp4a", "mp4s",
        "mp4v", "mpod", "mvex", "mvhd", "nmhd", "nump", "payt", "pmax", "rtp ", "s263", "samr",
        "sawb", "sdp ", "skip", "smhd", "snro", "stbl", "stco", "stdp", "stsc", "stsd", "stsh",
        "stss", "stsz", "stts", "sync", "tfhd", "tims", "tkhd", "tmax", "tmin", "tpyl", "traf",
        "trak", "tref", "trex", "trpy", "trun", "tsro", "udta", "url ", "urn ", "vmhd"};
    static_assert(sizeof(kNames) / sizeof(kNames[0]) == 76, "76 rows");
    for (const char *name : kNames) {
        AtomSchema schema{};
        EXPECT_EQ(GetAtomSchemaByName(name, &schema), 1) << name;
        EXPECT_EQ(IsKnownAtomName(name), 1) << name;
    }
}

// Rows whose layout the reader, the validation and the writer all follow.
TEST(Catalogue, RowsTheWalksLeanOn) {
    struct Row {
        const char *name;
        uint32_t childOffset, recordSize;
        uint8_t hasTable, hasString;
        uint32_t entrySize;
        const char *rules;  // "name:max" with "r" for required, joined by '|'
    };
    const Row kRows[] = {
        {"moov", 8, 8, 0, 0, 0, "mvhd:1r|iods:1|trak:2r|udta:2|mvex:1"},
        {"stbl", 8, 8, 0, 0, 0,
         "stsd:1r|stts:1r|ctts:1|stsz:1r|stsc:1r|stco:1|co64:1|stss:1|stsh:1|stdp:1"},
        {"stsd", 16, 16, 0, 0, 0, "samr:2|mp4s:2|s263:2|rtp :2|mp4a:2|mp4v:2|sawb:2"},
        {"hinf", 8, 8, 0, 0, 0,
         "trpy:1|nump:1|tpyl:1|maxr:2|dmed:1|dimm:1|drep:1|tmin:1|tmax:1|pmax:1|dmax:1|payt:1"},
        {"mp4v", 86, 88, 0, 0, 0, "esds:1r"},
        {"mp4a", 36, 36, 0, 0, 0, "esds:1r"},
        {"s263", 86, 88, 0, 0, 0, "d263:1r"},
        {"stsz", 0, 24, 1, 0, 4, ""},
        {"stsc", 0, 20, 1, 0, 12, ""},
        {"co64", 0, 20, 1, 0, 8, ""},
        {"esds", 0, 228, 0, 0, 0, ""},
        {"skip", 0, 8, 0, 0, 0, ""},
        {"sdp ", 0, 12, 0, 1, 1, ""},
        {"url ", 0, 16, 0, 1, 1, ""},
    };
    for (const Row &row : kRows) {
        SCOPED_TRACE(row.name);
        AtomSchema schema{};
        ASSERT_EQ(GetAtomSchemaByName(row.name, &schema), 1);
        EXPECT_EQ(schema.ChildOffset, row.childOffset);
        EXPECT_EQ(schema.RecordSize, row.recordSize);
        EXPECT_EQ(schema.HasTable, row.hasTable);
        EXPECT_EQ(schema.HasString, row.hasString);
        EXPECT_EQ(schema.EntrySize, row.entrySize);
        EXPECT_EQ(RulesText(schema), row.rules);
    }
}

// "free" is known but has no row; "root" has only its rules. Neither
// touches the layout fields, and rules beyond the count stay as they were.
TEST(Catalogue, SpecialNamesLeaveTheRecordAlone) {
    AtomSchema schema;
    std::memset(&schema, 0xA5, sizeof schema);
    const AtomSchema before = schema;
    EXPECT_EQ(GetAtomSchemaByName("free", &schema), -1);
    EXPECT_EQ(std::memcmp(&schema, &before, sizeof schema), 0);
    EXPECT_EQ(IsKnownAtomName("free"), 1);

    EXPECT_EQ(GetAtomSchemaByName("root", &schema), 0);
    EXPECT_EQ(RulesText(schema), "ftyp:1r|moov:1r|mdat:2|free:2|skip:2|udta:2|moof:2");
    EXPECT_EQ(schema.ChildOffset, 0xA5A5A5A5u);
    EXPECT_EQ(schema.RecordSize, 0xA5A5A5A5u);
    EXPECT_EQ(IsKnownAtomName("root"), 0);

    std::memset(&schema, 0xA5, sizeof schema);
    ASSERT_EQ(GetAtomSchemaByName("dinf", &schema), 1);
    EXPECT_EQ(schema.RuleCount, 1u);
    EXPECT_EQ(schema.ChildRules[1].MaxCount, 0xA5A5A5A5u);
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
