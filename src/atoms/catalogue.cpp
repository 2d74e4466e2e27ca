// The catalogue of atom types: the one source of atom layouts for reading,
// validating, allocating, extracting, writing and releasing.
#include <cstring>

#include "atoms/atoms.h"

namespace {

constexpr uint32_t kAny = 2;   // MaxCount: any number of such children
constexpr uint8_t kReq = 1;

struct Rule {
    char name[5];
    uint32_t maxCount;
    uint8_t required;
};

constexpr size_t kRowRules = 12;  // the longest list ("hinf") has 12 rules

struct CatalogueRow {
    char name[5];
    uint32_t childOffset;
    uint32_t recordSize;
    uint8_t hasTable;
    uint8_t hasString;
    uint32_t entrySize;
    Rule rules[kRowRules];
};

// Sorted by the four name bytes, so that a lookup can bisect.
constexpr CatalogueRow kCatalogue[] = {
    {"co64", 0, 20, 1, 0, 8, {}},
    {"cprt", 0, 16, 0, 0, 0, {}},
    {"ctts", 0, 20, 1, 0, 8, {}},
    {"d263", 0, 16, 0, 0, 0, {}},
    {"damr", 0, 20, 0, 0, 0, {}},
    {"dimm", 0, 16, 0, 0, 0, {}},
    {"dinf", 8, 8, 0, 0, 0, {{"dref", 1, kReq}}},
    {"dmax", 0, 12, 0, 0, 0, {}},
    {"dmed", 0, 16, 0, 0, 0, {}},
    {"dpnd", 0, 12, 1, 0, 4, {}},
    {"dref", 16, 16, 0, 0, 0, {{"url ", kAny, 0}, {"urn ", kAny, 0}}},
    {"drep", 0, 16, 0, 0, 0, {}},
    {"edts", 8, 8, 0, 0, 0, {{"elst", 1, kReq}}},
    {"elst", 0, 20, 1, 0, 12, {}},
    {"esds", 0, 228, 0, 0, 0, {}},
    {"ftyp", 0, 20, 0, 0, 0, {}},
    {"hdlr", 0, 36, 0, 0, 0, {}},
    {"hinf", 8, 8, 0, 0, 0,
     {{"trpy", 1, 0}, {"nump", 1, 0}, {"tpyl", 1, 0}, {"maxr", kAny, 0}, {"dmed", 1, 0},
      {"dimm", 1, 0}, {"drep", 1, 0}, {"tmin", 1, 0}, {"tmax", 1, 0}, {"pmax", 1, 0},
      {"dmax", 1, 0}, {"payt", 1, 0}}},
    {"hint", 0, 12, 1, 0, 4, {}},
    {"hmhd", 0, 28, 0, 0, 0, {}},
    {"hnti", 8, 8, 0, 0, 0, {{"sdp ", 1, 0}, {"rtp ", 1, 0}}},
    {"iods", 0, 44, 0, 0, 0, {}},
    {"ipir", 0, 12, 1, 0, 4, {}},
    {"maxr", 0, 16, 0, 0, 0, {}},
    {"mdat", 0, 8, 0, 0, 0, {}},
    {"mdhd", 0, 32, 0, 0, 0, {}},
    {"mdia", 8, 8, 0, 0, 0, {{"mdhd", 1, kReq}, {"hdlr", 1, kReq}, {"minf", 1, kReq}}},
    {"mfhd", 0, 16, 0, 0, 0, {}},
    {"minf", 8, 8, 0, 0, 0,
     {{"vmhd", 1, 0}, {"smhd", 1, 0}, {"hmhd", 1, 0}, {"nmhd", 1, 0}, {"dinf", 1, kReq},
      {"stbl", 1, kReq}}},
    {"moof", 8, 8, 0, 0, 0, {{"mfhd", 1, kReq}, {"traf", kAny, 0}}},
    {"moov", 8, 8, 0, 0, 0,
     {{"mvhd", 1, kReq}, {"iods", 1, 0}, {"trak", kAny, kReq}, {"udta", kAny, 0},
      {"mvex", 1, 0}}},
    {"mp4a", 36, 36, 0, 0, 0, {{"esds", 1, kReq}}},
    {"mp4s", 16, 16, 0, 0, 0, {{"esds", 1, kReq}}},
    {"mp4v", 86, 88, 0, 0, 0, {{"esds", 1, kReq}}},
    {"mpod", 0, 12, 1, 0, 4, {}},
    {"mvex", 8, 8, 0, 0, 0, {{"trex", kAny, kReq}}},
    {"mvhd", 0, 108, 0, 0, 0, {}},
    {"nmhd", 0, 12, 0, 0, 0, {}},
    {"nump", 0, 16, 0, 0, 0, {}},
    {"payt", 0, 12, 0, 1, 0, {}},
    {"pmax", 0, 12, 0, 0, 0, {}},
    {"rtp ", 24, 24, 0, 0, 0, {{"tims", 1, kReq}, {"tsro", 1, 0}, {"snro", 1, 0}}},
    {"s263", 86, 88, 0, 0, 0, {{"d263", 1, kReq}}},
    {"samr", 36, 36, 0, 0, 0, {{"damr", 1, kReq}}},
    {"sawb", 36, 36, 0, 0, 0, {{"damr", 1, kReq}}},
    {"sdp ", 0, 12, 0, 1, 1, {}},
    {"skip", 0, 8, 0, 0, 0, {}},
    {"smhd", 0, 16, 0, 0, 0, {}},
    {"snro", 0, 12, 0, 0, 0, {}},
    {"stbl", 8, 8, 0, 0, 0,
     {{"stsd", 1, kReq}, {"stts", 1, kReq}, {"ctts", 1, 0}, {"stsz", 1, kReq}, {"stsc", 1, kReq},
      {"stco", 1, 0}, {"co64", 1, 0}, {"stss", 1, 0}, {"stsh", 1, 0}, {"stdp", 1, 0}}},
    {"stco", 0, 20, 1, 0, 4, {}},
    {"stdp", 0, 20, 1, 0, 4, {}},
    {"stsc", 0, 20, 1, 0, 12, {}},
    {"stsd", 16, 16, 0, 0, 0,
     {{"samr", kAny, 0}, {"mp4s", kAny, 0}, {"s263", kAny, 0}, {"rtp ", kAny, 0},
      {"mp4a", kAny, 0}, {"mp4v", kAny, 0}, {"sawb", kAny, 0}}},
    {"stsh", 0, 20, 1, 0, 8, {}},
    {"stss", 0, 20, 1, 0, 4, {}},
    {"stsz", 0, 24, 1, 0, 4, {}},
    {"stts", 0, 20, 1, 0, 8, {}},
    {"sync", 0, 12, 1, 0, 4, {}},
    {"tfhd", 0, 16, 0, 0, 0, {}},
    {"tims", 0, 12, 0, 0, 0, {}},
    {"tkhd", 0, 92, 0, 0, 0, {}},
    {"tmax", 0, 12, 0, 0, 0, {}},
    {"tmin", 0, 12, 0, 0, 0, {}},
    {"tpyl", 0, 16, 0, 0, 0, {}},
    {"traf", 8, 8, 0, 0, 0, {{"tfhd", 1, kReq}, {"trun", kAny, 0}}},
    {"trak", 8, 8, 0, 0, 0,
     {{"tkhd", 1, kReq}, {"tref", 1, 0}, {"edts", 1, 0}, {"mdia", 1, kReq}, {"udta", kAny, 0}}},
    {"tref", 8, 8, 0, 0, 0,
     {{"dpnd", 1, 0}, {"hint", 1, 0}, {"ipir", 1, 0}, {"mpod", 1, 0}, {"sync", 1, 0}}},
    {"trex", 0, 32, 0, 0, 0, {}},
    {"trpy", 0, 16, 0, 0, 0, {}},
    {"trun", 0, 16, 0, 0, 0, {}},
    {"tsro", 0, 12, 0, 0, 0, {}},
    {"udta", 8, 8, 0, 0, 0, {{"cprt", kAny, 0}, {"hnti", 1, 0}, {"hinf", 1, 0}}},
    {"url ", 0, 16, 0, 1, 1, {}},
    {"urn ", 0, 16, 0, 1, 1, {}},
    {"vmhd", 0, 20, 0, 0, 0, {}},
};

constexpr size_t kCatalogueRows = sizeof(kCatalogue) / sizeof(kCatalogue[0]);
static_assert(kCatalogueRows == 76, "the catalogue has 76 rows");

// "root" stands for the file itself and has only rules: what a file's top
// level holds. No operation applies them.
constexpr Rule kRootRules[] = {{"ftyp", 1, kReq}, {"moov", 1, kReq}, {"mdat", kAny, 0},
                               {"free", kAny, 0}, {"skip", kAny, 0}, {"udta", kAny, 0},
                               {"moof", kAny, 0}};

const CatalogueRow *FindRow(const char *name) {
    size_t lo = 0;
    size_t hi = kCatalogueRows;
    while (lo < hi) {
        size_t mid = (lo + hi) / 2;
        int order = std::memcmp(name, kCatalogue[mid].name, 4);
        if (order == 0) return &kCatalogue[mid];
        if (order < 0) {
            hi = mid;
        } else {
            lo = mid + 1;
        }
    }
    return nullptr;
}

template <size_t N>
uint32_t FillRules(const Rule (&rules)[N], AtomSchema *schema) {
    uint32_t count = 0;
    for (const Rule &rule : rules) {
        if (rule.name[0] == '\0') break;
        ++count;
        SetChildRule(count, rule.maxCount, rule.required, rule.name, schema);
    }
    return count;
}

}  // namespace

bool SetChildRule(uint32_t ruleNumber, uint32_t maxCount, uint8_t required, const char *name,
                  AtomSchema *schema) {
    ChildRule &rule = schema->ChildRules[ruleNumber - 1];
    rule.MaxCount = maxCount;
    rule.Required = required;
    std::memcpy(rule.ChildName, name, 4);
    return true;
}

int32_t GetAtomSchemaByName(const char *name, AtomSchema *schema) {
    if (std::memcmp(name, "root", 4) == 0) {
        schema->RuleCount = FillRules(kRootRules, schema);
        return 0;
    }
    const CatalogueRow *row = FindRow(name);
    if (row == nullptr) return -1;  // unknown, or "free"
    schema->ChildOffset = row->childOffset;
    schema->RecordSize = row->recordSize;
    schema->HasTable = row->hasTable;
    schema->HasString = row->hasString;
    schema->EntrySize = row->entrySize;
    schema->RuleCount = FillRules(row->rules, schema);
    return 1;
}

int32_t GetAtomSchema(const AtomNode *node, AtomSchema *schema) {
    return GetAtomSchemaByName(node->AtomName, schema);
}

int32_t IsKnownAtomName(const char *name) {
    if (std::memcmp(name, "root", 4) == 0) return 0;
    if (std::memcmp(name, "free", 4) == 0) return 1;
    return FindRow(name) != nullptr ? 1 : -1;
}

uint32_t RecordHeadLength(const AtomSchema &schema) {
    return schema.EntrySize != 0 ? schema.RecordSize - 4 : schema.RecordSize;
}

size_t RecordAllocSize(const AtomSchema &schema) {
    return schema.EntrySize != 0 ? RecordHeadLength(schema) + sizeof(void *) : schema.RecordSize;
}

uint32_t NodeHeadLength(const AtomNode *node) {
    AtomSchema schema;
    if (GetAtomSchema(node, &schema) <= 0) return kBareHeadLength;
    return RecordHeadLength(schema);
}

void *GetRecordPointer(const AtomNode *node) {
    AtomSchema schema;
    if (node->realStructure == nullptr || GetAtomSchema(node, &schema) <= 0 ||
        schema.EntrySize == 0)
        return nullptr;
    void *pointer = nullptr;
    std::memcpy(&pointer, node->realStructure + RecordHeadLength(schema), sizeof pointer);
    return pointer;
}

void SetRecordPointer(AtomNode *node, void *pointer) {
    AtomSchema schema;
    if (node->realStructure == nullptr || GetAtomSchema(node, &schema) <= 0 ||
        schema.EntrySize == 0)
        return;
    std::memcpy(node->realStructure + RecordHeadLength(schema), &pointer, sizeof pointer);
}
