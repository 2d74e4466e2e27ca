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

// Which reader knows a row: the classic rows are the data model's and both
// readers know them; the modern reader alone knows the atoms of today's
// files (sample entries of newer codecs, "stz2", "meta", "uuid", ...).
enum KnownBy : uint8_t { kBothReaders = 0, kModernOnly = 1 };

struct CatalogueRow {
    char name[5];
    uint32_t childOffset;
    uint32_t recordSize;
    uint8_t hasTable;
    uint8_t hasString;
    uint32_t entrySize;
    Rule rules[kRowRules];
    KnownBy knownBy = kBothReaders;
    // Modern reader: version 1 layout (0: as version 0) and child placement.
    uint32_t recordSizeV1 = 0;
    uint32_t entrySizeV1 = 0;
    ChildPlacement placement = ChildPlacement::kFixed;
    // Modern reader: fields that the atom's flags switch on.
    const FlaggedLayout *flagged = nullptr;
    // Modern reader, kBehindStrings: the strings in front of the children.
    uint8_t stringCount = 0;
};

constexpr KnownBy kModern = kModernOnly;
constexpr ChildPlacement kSound = ChildPlacement::kSoundVersion;
constexpr ChildPlacement kFixed = ChildPlacement::kFixed;
constexpr ChildPlacement kStrings = ChildPlacement::kBehindStrings;

// The track fragment header: behind the track ID, each default that its
// flag announces.
constexpr FlaggedLayout kTfhdLayout = {
    {{flag::kTfhdBaseDataOffset, 8},
     {flag::kTfhdDescriptionIndex, 4},
     {flag::kTfhdDefaultDuration, 4},
     {flag::kTfhdDefaultSize, 4},
     {flag::kTfhdDefaultFlags, 4}},
    {}};
// The track run: behind the sample count, a data offset and the first
// sample's flags; then one entry per sample with the fields its flags name.
constexpr FlaggedLayout kTrunLayout = {
    {{flag::kTrunDataOffset, 4}, {flag::kTrunFirstSampleFlags, 4}},
    {{flag::kTrunDuration, 4},
     {flag::kTrunSize, 4},
     {flag::kTrunFlags, 4},
     {flag::kTrunCompositionOffset, 4}}};

// Sorted by the four name bytes, so that a lookup can bisect.
constexpr CatalogueRow kCatalogue[] = {
    {".mp3", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"Opus", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"ac-3", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"alac", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"alaw", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"av01", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"avc1", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"avc2", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"avc3", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"avc4", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
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
    {"dvh1", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"dvhe", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"ec-3", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"edts", 8, 8, 0, 0, 0, {{"elst", 1, kReq}}},
    {"elst", 0, 20, 1, 0, 12, {}, kBothReaders, 0, 20, kFixed},
    {"emsg", 0, 12, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"enca", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"encv", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"esds", 0, 228, 0, 0, 0, {}},
    {"fLaC", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"fl32", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"fl64", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"fpcm", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"frma", 0, 12, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"ftyp", 0, 20, 0, 0, 0, {}},
    {"h263", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"hdlr", 0, 36, 0, 0, 0, {}},
    {"hev1", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"hinf", 8, 8, 0, 0, 0,
     {{"trpy", 1, 0}, {"nump", 1, 0}, {"tpyl", 1, 0}, {"maxr", kAny, 0}, {"dmed", 1, 0},
      {"dimm", 1, 0}, {"drep", 1, 0}, {"tmin", 1, 0}, {"tmax", 1, 0}, {"pmax", 1, 0},
      {"dmax", 1, 0}, {"payt", 1, 0}}},
    {"hint", 0, 12, 1, 0, 4, {}},
    {"hmhd", 0, 28, 0, 0, 0, {}},
    {"hnti", 8, 8, 0, 0, 0, {{"sdp ", 1, 0}, {"rtp ", 1, 0}}},
    {"hvc1", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"ilst", 8, 8, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"in24", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"in32", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"iods", 0, 44, 0, 0, 0, {}},
    {"ipcm", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"ipir", 0, 12, 1, 0, 4, {}},
    {"jpeg", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"lpcm", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"maxr", 0, 16, 0, 0, 0, {}},
    {"mdat", 0, 8, 0, 0, 0, {}},
    {"mdhd", 0, 32, 0, 0, 0, {}, kBothReaders, 44, 0, kFixed},
    {"mdia", 8, 8, 0, 0, 0, {{"mdhd", 1, kReq}, {"hdlr", 1, kReq}, {"minf", 1, kReq}}},
    {"mehd", 0, 16, 0, 0, 0, {}, kModern, 20, 0, kFixed},
    {"meta", 12, 12, 0, 0, 0, {}, kModern, 0, 0, ChildPlacement::kMetaProbe},
    {"mett", 16, 16, 0, 0, 0, {}, kModern, 0, 0, kStrings, nullptr, 2},
    {"mfhd", 0, 16, 0, 0, 0, {}},
    {"mfra", 8, 8, 0, 0, 0, {{"tfra", kAny, 0}, {"mfro", 1, 0}}, kModern, 0, 0, kFixed},
    {"mfro", 0, 16, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"minf", 8, 8, 0, 0, 0,
     {{"vmhd", 1, 0}, {"smhd", 1, 0}, {"hmhd", 1, 0}, {"nmhd", 1, 0}, {"dinf", 1, kReq},
      {"stbl", 1, kReq}}},
    {"mjp2", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"moof", 8, 8, 0, 0, 0, {{"mfhd", 1, kReq}, {"traf", kAny, 0}}},
    {"moov", 8, 8, 0, 0, 0,
     {{"mvhd", 1, kReq}, {"iods", 1, 0}, {"trak", kAny, kReq}, {"udta", kAny, 0},
      {"mvex", 1, 0}}},
    {"mp3 ", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"mp4a", 36, 36, 0, 0, 0, {{"esds", 1, kReq}}, kBothReaders, 0, 0, kSound},
    {"mp4s", 16, 16, 0, 0, 0, {{"esds", 1, kReq}}},
    {"mp4v", 86, 88, 0, 0, 0, {{"esds", 1, kReq}}},
    {"mpod", 0, 12, 1, 0, 4, {}},
    {"mvex", 8, 8, 0, 0, 0, {{"trex", kAny, kReq}}},
    {"mvhd", 0, 108, 0, 0, 0, {}, kBothReaders, 120, 0, kFixed},
    {"nmhd", 0, 12, 0, 0, 0, {}},
    {"nump", 0, 16, 0, 0, 0, {}},
    {"pasp", 0, 16, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"payt", 0, 12, 0, 1, 0, {}},
    {"pmax", 0, 12, 0, 0, 0, {}},
    {"prft", 0, 12, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"raw ", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"rtp ", 24, 24, 0, 0, 0, {{"tims", 1, kReq}, {"tsro", 1, 0}, {"snro", 1, 0}}},
    {"s263", 86, 88, 0, 0, 0, {{"d263", 1, kReq}}},
    {"samr", 36, 36, 0, 0, 0, {{"damr", 1, kReq}}, kBothReaders, 0, 0, kSound},
    {"sawb", 36, 36, 0, 0, 0, {{"damr", 1, kReq}}, kBothReaders, 0, 0, kSound},
    {"schi", 8, 8, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"schm", 0, 20, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"sdp ", 0, 12, 0, 1, 1, {}},
    {"sidx", 0, 12, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"sinf", 8, 8, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"skip", 0, 8, 0, 0, 0, {}},
    {"smhd", 0, 16, 0, 0, 0, {}},
    {"snro", 0, 12, 0, 0, 0, {}},
    {"sowt", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"stbl", 8, 8, 0, 0, 0,
     {{"stsd", 1, kReq}, {"stts", 1, kReq}, {"ctts", 1, 0}, {"stsz", 1, kReq}, {"stsc", 1, kReq},
      {"stco", 1, 0}, {"co64", 1, 0}, {"stss", 1, 0}, {"stsh", 1, 0}, {"stdp", 1, 0}}},
    {"stco", 0, 20, 1, 0, 4, {}},
    {"stdp", 0, 20, 1, 0, 4, {}},
    {"stpp", 16, 16, 0, 0, 0, {}, kModern, 0, 0, kStrings, nullptr, 3},
    {"stsc", 0, 20, 1, 0, 12, {}},
    {"stsd", 16, 16, 0, 0, 0,
     {{"samr", kAny, 0}, {"mp4s", kAny, 0}, {"s263", kAny, 0}, {"rtp ", kAny, 0},
      {"mp4a", kAny, 0}, {"mp4v", kAny, 0}, {"sawb", kAny, 0}}},
    {"stsh", 0, 20, 1, 0, 8, {}},
    {"stss", 0, 20, 1, 0, 4, {}},
    {"stsz", 0, 24, 1, 0, 4, {}},
    {"stts", 0, 20, 1, 0, 8, {}},
    {"styp", 0, 16, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"stz2", 0, 24, 1, 0, 1, {}, kModern, 0, 0, kFixed},
    {"sync", 0, 12, 1, 0, 4, {}},
    {"tfdt", 0, 16, 0, 0, 0, {}, kModern, 20, 0, kFixed},
    {"tfhd", 0, 16, 0, 0, 0, {}, kBothReaders, 0, 0, kFixed, &kTfhdLayout},
    {"tfra", 0, 24, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"tims", 0, 12, 0, 0, 0, {}},
    {"tkhd", 0, 92, 0, 0, 0, {}, kBothReaders, 104, 0, kFixed},
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
    {"trun", 0, 16, 0, 0, 0, {}, kBothReaders, 0, 0, kFixed, &kTrunLayout},
    {"tsro", 0, 12, 0, 0, 0, {}},
    {"twos", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"tx3g", 46, 46, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"udta", 8, 8, 0, 0, 0, {{"cprt", kAny, 0}, {"hnti", 1, 0}, {"hinf", 1, 0}}},
    {"ulaw", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
    {"url ", 0, 16, 0, 1, 1, {}},
    {"urn ", 0, 16, 0, 1, 1, {}},
    {"uuid", 0, 24, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"vmhd", 0, 20, 0, 0, 0, {}},
    {"vp08", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"vp09", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"wave", 8, 8, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"wvtt", 16, 16, 0, 0, 0, {}, kModern, 0, 0, kFixed},
};

constexpr size_t kCatalogueRows = sizeof(kCatalogue) / sizeof(kCatalogue[0]);

// The layouts of the sample entries that the modern reader reads by their
// track's handler (SampleEntryForm 1 to 3): a visual entry, and a sound
// entry with its children at 36 (ISO, versions 0 and 1 alike) or placed by
// its version (QuickTime). A row by the entry's name of the same kind is
// taken before these.
constexpr CatalogueRow kEntryFormRows[] = {
    {"vide", 86, 86, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"soun", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kFixed},
    {"soun", 36, 36, 0, 0, 0, {}, kModern, 0, 0, kSound},
};

constexpr size_t CountRows(KnownBy knownBy) {
    size_t count = 0;
    for (const CatalogueRow &row : kCatalogue) count += row.knownBy == knownBy ? 1 : 0;
    return count;
}
static_assert(CountRows(kBothReaders) == 76, "the data model has 76 rows");

constexpr bool IsSorted() {
    for (size_t i = 1; i < kCatalogueRows; ++i) {
        for (size_t b = 0; b < 4; ++b) {
            const auto before = uint8_t(kCatalogue[i - 1].name[b]);
            const auto after = uint8_t(kCatalogue[i].name[b]);
            if (before < after) break;
            if (before > after || b == 3) return false;
        }
    }
    return true;
}
static_assert(IsSorted(), "rows are sorted by their name bytes for the bisection");

// "root" stands for the file itself and has only rules: what a file's top
// level holds. No operation applies them.
constexpr Rule kRootRules[] = {{"ftyp", 1, kReq}, {"moov", 1, kReq}, {"mdat", kAny, 0},
                               {"free", kAny, 0}, {"skip", kAny, 0}, {"udta", kAny, 0},
                               {"moof", kAny, 0}};

// A name's four bytes as one big-endian number: comparing two numbers
// orders names as their bytes do.
constexpr uint32_t NameKey(const char *name) {
    return (uint32_t(uint8_t(name[0])) << 24) | (uint32_t(uint8_t(name[1])) << 16) |
           (uint32_t(uint8_t(name[2])) << 8) | uint8_t(name[3]);
}

// Where the rows of each first byte begin: a lookup bisects only the rows
// that share its name's first byte (a walk over a fragmented file asks the
// catalogue a few dozen times for each of its many small atoms).
struct FirstByteIndex {
    uint8_t Start[257];
};

constexpr FirstByteIndex MakeFirstByteIndex() {
    FirstByteIndex index{};
    size_t row = 0;
    for (size_t b = 0; b <= 256; ++b) {
        while (row < kCatalogueRows && uint8_t(kCatalogue[row].name[0]) < b) ++row;
        index.Start[b] = uint8_t(row);
    }
    return index;
}

static_assert(kCatalogueRows < 256, "row numbers fit the first-byte index");
constexpr FirstByteIndex kFirstByteIndex = MakeFirstByteIndex();

const CatalogueRow *FindRow(const char *name, AtomReader reader) {
    const uint32_t key = NameKey(name);
    const uint8_t first = uint8_t(name[0]);
    size_t lo = kFirstByteIndex.Start[first];
    size_t hi = kFirstByteIndex.Start[first + 1];
    while (lo < hi) {
        size_t mid = (lo + hi) / 2;
        const uint32_t rowKey = NameKey(kCatalogue[mid].name);
        if (key == rowKey) {
            const CatalogueRow *row = &kCatalogue[mid];
            if (row->knownBy == kModernOnly && reader != kModernReader) return nullptr;
            return row;
        }
        if (key < rowKey) {
            hi = mid;
        } else {
            lo = mid + 1;
        }
    }
    return nullptr;
}

// Bytes of the fields of a list that these flags switch on.
uint32_t FlaggedBytes(const FlaggedField (&fields)[kMaxFlaggedFields], uint32_t flags) {
    uint32_t bytes = 0;
    for (const FlaggedField &field : fields)
        if ((flags & field.Flag) != 0) bytes += field.Bytes;
    return bytes;
}

constexpr uint32_t kAllFlags = 0xFFFFFF;

// Whether the record has a pointer field: a table behind a fixed head, or
// one whose entries the flags lay out.
bool HasPointer(const AtomSchema &schema) {
    return schema.EntrySize != 0 || (schema.Flagged != nullptr && schema.Flagged->Entry[0].Flag != 0);
}

// The pointer field stands behind the longest head the atom can have.
uint32_t PointerOffset(const AtomSchema &schema) {
    const uint32_t head = RecordHeadLength(schema);
    return schema.Flagged != nullptr ? head + FlaggedBytes(schema.Flagged->Head, kAllFlags) : head;
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

namespace {

// The row of a node: by its name, or for a sample entry of a modern
// "stsd", by its form. A named row serves when it is of the form's kind
// (its children where the form has them); the ISO sound form keeps the
// named row's layout with its children at 36.
const CatalogueRow *RowOf(const AtomNode *node) {
    const CatalogueRow *named = FindRow(node->AtomName, AtomReader(node->Reader));
    if (node->EntryForm == kEntryByName || node->EntryForm > kSoundEntryQuickTime) return named;
    const CatalogueRow *form = &kEntryFormRows[node->EntryForm - 1];
    const bool sound = node->EntryForm != kVisualEntry;
    if (named != nullptr && named->childOffset == form->childOffset &&
        (named->placement == kSound) == sound)
        return node->EntryForm == kSoundEntryIso ? form : named;
    return form;
}

// The layout of a row, all of the schema but the child rules.
void FillLayout(const CatalogueRow &row, AtomReader reader, AtomSchema *schema) {
    schema->ChildOffset = row.childOffset;
    schema->RecordSize = row.recordSize;
    schema->HasTable = row.hasTable;
    schema->HasString = row.hasString;
    schema->EntrySize = row.entrySize;
    schema->RecordSizeV1 = row.recordSizeV1;
    schema->EntrySizeV1 = row.entrySizeV1;
    schema->Placement = row.placement;
    schema->StringCount = row.stringCount;
    schema->Flagged = reader == kModernReader ? row.flagged : nullptr;
}

// A node's layout, for the questions about its record that every walk
// asks many times (its size, its pointer, its version): without the
// copying of the child rules. False when the catalogue has no row for it.
bool LayoutOf(const AtomNode *node, AtomSchema *schema) {
    const CatalogueRow *row = RowOf(node);
    if (row == nullptr) return false;
    FillLayout(*row, AtomReader(node->Reader), schema);
    return true;
}

}  // namespace

int32_t GetAtomSchemaByName(const char *name, AtomSchema *schema, AtomReader reader) {
    if (std::memcmp(name, "root", 4) == 0) {
        schema->RuleCount = FillRules(kRootRules, schema);
        return 0;
    }
    const CatalogueRow *row = FindRow(name, reader);
    if (row == nullptr) return -1;  // unknown, or "free"
    FillLayout(*row, reader, schema);
    schema->RuleCount = FillRules(row->rules, schema);
    return 1;
}

int32_t GetAtomSchema(const AtomNode *node, AtomSchema *schema) {
    if (node->EntryForm == kEntryByName)
        return GetAtomSchemaByName(node->AtomName, schema, AtomReader(node->Reader));
    const CatalogueRow *row = RowOf(node);
    FillLayout(*row, AtomReader(node->Reader), schema);
    schema->RuleCount = FillRules(row->rules, schema);
    return 1;
}

SampleEntryForm EntryFormOf(const char *handler, uint8_t stsdVersion) {
    if (std::memcmp(handler, "vide", 4) == 0) return kVisualEntry;
    if (std::memcmp(handler, "soun", 4) != 0) return kEntryByName;
    return stsdVersion == 1 ? kSoundEntryIso : kSoundEntryQuickTime;
}

int32_t GetAtomLayout(const AtomNode *node, AtomSchema *schema) {
    return LayoutOf(node, schema) ? 1 : -1;
}

int32_t IsKnownAtomName(const char *name, AtomReader reader) {
    if (std::memcmp(name, "root", 4) == 0) return 0;
    if (std::memcmp(name, "free", 4) == 0) return 1;
    return FindRow(name, reader) != nullptr ? 1 : -1;
}

uint32_t RecordHeadLength(const AtomSchema &schema) {
    return schema.EntrySize != 0 ? schema.RecordSize - 4 : schema.RecordSize;
}

size_t RecordAllocSize(const AtomSchema &schema) {
    if (HasPointer(schema)) return PointerOffset(schema) + sizeof(void *);
    return schema.Flagged != nullptr ? PointerOffset(schema) : schema.RecordSize;
}

uint32_t ModernHeadLength(const AtomSchema &schema, uint8_t version, uint32_t flags) {
    uint32_t head = RecordHeadLength(schema);
    if (version == 1 && schema.RecordSizeV1 != 0)
        head = schema.EntrySize != 0 ? schema.RecordSizeV1 - 4 : schema.RecordSizeV1;
    if (schema.Flagged != nullptr) head += FlaggedBytes(schema.Flagged->Head, flags);
    return head;
}

uint32_t ModernEntrySize(const AtomSchema &schema, uint8_t version, uint32_t flags) {
    if (schema.Flagged != nullptr) return FlaggedBytes(schema.Flagged->Entry, flags);
    return version == 1 && schema.EntrySizeV1 != 0 ? schema.EntrySizeV1 : schema.EntrySize;
}

int32_t FlaggedFieldOffset(const AtomSchema &schema, uint32_t flags, uint32_t flag, bool inEntry) {
    if (schema.Flagged == nullptr) return -1;
    const FlaggedField(&fields)[kMaxFlaggedFields] =
        inEntry ? schema.Flagged->Entry : schema.Flagged->Head;
    uint32_t at = inEntry ? 0 : RecordHeadLength(schema);
    for (const FlaggedField &field : fields) {
        if (field.Flag == flag) return (flags & flag) != 0 ? int32_t(at) : -1;
        if ((flags & field.Flag) != 0) at += field.Bytes;
    }
    return -1;
}

uint32_t NodeFlags(const AtomNode *node) {
    if (node->Reader != kModernReader || !RecordHolds(node, field::kVersionFlags + 4)) return 0;
    return GetBE32(node->realStructure, field::kVersionFlags) & kAllFlags;
}

size_t NodeAllocSize(const AtomNode *node) {
    AtomSchema schema{};
    if (!LayoutOf(node, &schema)) return kBareHeadLength;
    const size_t size = RecordAllocSize(schema);
    if (node->Reader != kModernReader || schema.RecordSizeV1 <= schema.RecordSize) return size;
    return size + (schema.RecordSizeV1 - schema.RecordSize);
}

uint8_t NodeVersion(const AtomNode *node) {
    if (node->Reader != kModernReader || !RecordHolds(node, field::kVersionFlags + 1)) return 0;
    return node->realStructure[field::kVersionFlags];
}

bool RecordHolds(const AtomNode *node, size_t bytes) {
    return node != nullptr && node->realStructure != nullptr && NodeAllocSize(node) >= bytes;
}

uint32_t NodeHeadLength(const AtomNode *node) {
    AtomSchema schema;
    if (!LayoutOf(node, &schema)) return kBareHeadLength;
    return RecordHeadLength(schema);
}

void *GetRecordPointer(const AtomNode *node) {
    AtomSchema schema;
    if (node->realStructure == nullptr || !LayoutOf(node, &schema) || !HasPointer(schema))
        return nullptr;
    void *pointer = nullptr;
    std::memcpy(&pointer, node->realStructure + PointerOffset(schema), sizeof pointer);
    return pointer;
}

void SetRecordPointer(AtomNode *node, void *pointer) {
    AtomSchema schema;
    if (node->realStructure == nullptr || !LayoutOf(node, &schema) || !HasPointer(schema))
        return;
    std::memcpy(node->realStructure + PointerOffset(schema), &pointer, sizeof pointer);
}
