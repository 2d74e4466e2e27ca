// Atom tree: the node, the catalogue of atom types, reading, validating,
// allocating, extracting and releasing the tree, and the templates of new
// trees. This header is what the other subsystems may use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "atoms/fields.h"
#include "frame/frame.h"

// Which reader made a node, and so which rows of the catalogue describe it.
// Zeroed nodes (templates, the classic reader's) are classic.
enum AtomReader : uint8_t { kClassicReader = 0, kModernReader = 1 };

struct AtomNode {
    uint64_t AtomSize;      // whole atom, head included; 0 in a template node
    char AtomName[5];       // four name bytes and a terminator
    uint8_t Reader;         // AtomReader
    uint8_t LargeHead;      // 8 when a 64-bit size follows the name, else 0
    uint8_t EntryForm;      // SampleEntryForm of a child of a modern "stsd"
    uint64_t AtomOffset;    // file offset of the size field; 0 in a template node
    AtomNode *NextSibling;
    AtomNode *ParentAtom;
    AtomNode *FirstChild;
    uint8_t *realStructure; // the payload record, see RecordHeadLength
};

constexpr uint32_t kMaxChildRules = 19;

struct ChildRule {
    uint32_t MaxCount;   // 1: at most one; 2: any number
    uint8_t Required;    // 1: at least one
    char ChildName[4];
};

// How the modern reader reads a sample entry: by its track's handler, so
// that an entry of any format has the fields of its kind. A "vide" entry
// is visual; a "soun" entry is a sound entry, laid out as ISO has it under
// an "stsd" of version 1 and by its own version (QuickTime) under one of
// version 0. Entries of other handlers are read by their name's row.
enum SampleEntryForm : uint8_t {
    kEntryByName = 0,
    kVisualEntry = 1,
    kSoundEntryIso = 2,
    kSoundEntryQuickTime = 3,
};

// How the modern reader finds where a container's children begin, beyond
// the fixed ChildOffset.
enum class ChildPlacement : uint8_t {
    kFixed,          // ChildOffset
    kSoundVersion,   // sound sample entry: 36, 52 or 72 by its version (u16 at 16)
    kMetaProbe,      // "meta": 12 (a full atom), or 8 when "hdlr" follows at once
    kBehindStrings,  // ChildOffset, then as many zero-terminated strings as
                     // the row's StringCount ("stpp", "mett")
};
// The strings a kBehindStrings entry may hold before its children are
// looked for at most this far into it.
constexpr uint32_t kMaxEntryStringBytes = 1024;

// A field of a full atom that one of its flags switches on ("tfhd",
// "trun"): the flag and the field's bytes. A layout's fields stand in the
// order of its list; the ones whose flag is clear take no room.
struct FlaggedField {
    uint32_t Flag;
    uint8_t Bytes;
};
constexpr size_t kMaxFlaggedFields = 5;
struct FlaggedLayout {
    FlaggedField Head[kMaxFlaggedFields];   // behind the fixed head
    FlaggedField Entry[kMaxFlaggedFields];  // in each table entry; none: no table
};

struct AtomSchema {
    uint32_t ChildOffset;  // bytes from the atom's start to its first child; 0: a leaf
    uint32_t RecordSize;   // as the catalogue states it, pointer field counted as 4
    uint8_t HasTable;
    uint8_t HasString;
    uint32_t EntrySize;    // 0: no variable part; 1 for a string
    uint32_t RuleCount;
    ChildRule ChildRules[kMaxChildRules];  // rules 1..RuleCount at index 0..RuleCount-1
    // Modern reader only: the layout of version 1 of the atom (0: as
    // version 0), and where its children begin.
    uint32_t RecordSizeV1;
    uint32_t EntrySizeV1;
    ChildPlacement Placement;
    uint8_t StringCount;   // kBehindStrings: the strings before the children
    // Modern reader only: the fields that the atom's flags switch on; null
    // for an atom whose layout the flags don't change.
    const FlaggedLayout *Flagged;
};

// ---- Catalogue (catalogue.cpp) ------------------------------------------

// 1: known, schema filled; 0: "root", only the rules filled; -1: no entry
// (unknown or "free"), schema untouched.
// A node is looked up in the rows of the reader that made it; by name, in
// the classic rows unless a reader is given.
int32_t GetAtomSchema(const AtomNode *node, AtomSchema *schema);
int32_t GetAtomSchemaByName(const char *name, AtomSchema *schema,
                            AtomReader reader = kClassicReader);
// As GetAtomSchema, without the child rules (RuleCount and ChildRules are
// left as they were): for the walks that ask a node's layout many times.
// 1 known, -1 no row ("root" included).
int32_t GetAtomLayout(const AtomNode *node, AtomSchema *schema);
// 1 for every catalogue name of the reader and "free", 0 for "root", -1
// otherwise.
int32_t IsKnownAtomName(const char *name, AtomReader reader = kClassicReader);
// The form of the entries of a modern "stsd" of this version in a track of
// this handler (four bytes).
SampleEntryForm EntryFormOf(const char *handler, uint8_t stsdVersion);
bool SetChildRule(uint32_t ruleNumber, uint32_t maxCount, uint8_t required, const char *name,
                  AtomSchema *schema);

// The record of an atom is its head as the file has it (h bytes) and, for
// atoms with a variable part, a native pointer behind the head. h keeps the
// catalogue's values: RecordSize, or RecordSize - 4 when EntrySize is not 0.
// Atoms without a schema ("free", unknown names, "root") get an 8-byte head.
constexpr uint32_t kBareHeadLength = 8;
uint32_t RecordHeadLength(const AtomSchema &schema);
size_t RecordAllocSize(const AtomSchema &schema);
// Head length and allocation size for any node, schema or not.
uint32_t NodeHeadLength(const AtomNode *node);
// The version of a full atom as its record holds it: on the modern path
// the byte behind the head, on the classic path always 0 (the data model
// has no version 1 layouts, and its records have no room for them).
uint8_t NodeVersion(const AtomNode *node);
// Whether a node has a record of at least `bytes` bytes, so that fields up
// to there can be read from it.
bool RecordHolds(const AtomNode *node, size_t bytes);
// Bytes a node's record takes: its schema's allocation, on the modern path
// the larger of the version 0 and version 1 heads.
size_t NodeAllocSize(const AtomNode *node);
// The head of a modern node of this version and these flags (24 bits),
// and the size of its table entries: the version 1 layout where the row
// has one, plus the fields its flags switch on.
uint32_t ModernHeadLength(const AtomSchema &schema, uint8_t version, uint32_t flags);
uint32_t ModernEntrySize(const AtomSchema &schema, uint8_t version, uint32_t flags);
// Where the field that `flag` switches on lies under these flags: in the
// head counted from the atom's first byte, or in a table entry counted from
// the entry's first byte; -1 when the flags leave it out.
int32_t FlaggedFieldOffset(const AtomSchema &schema, uint32_t flags, uint32_t flag, bool inEntry);
// The flags of a full atom as its record holds them (the 24 bits behind
// the version); 0 on the classic path, like NodeVersion.
uint32_t NodeFlags(const AtomNode *node);
// The pointer field of a record; null when the atom has none.
void *GetRecordPointer(const AtomNode *node);
void SetRecordPointer(AtomNode *node, void *pointer);

// ---- Tree reader (tree_reader.cpp) ---------------------------------------

// Nesting deeper than this ends the scan of that container; valid files
// need 8 levels.
constexpr uint32_t kMaxAtomDepth = 32;

// What a reader makes of the heads it meets. The classic reader knows its
// catalogue rows only: an unknown name ends its container's scan, sizes
// are the 32-bit field alone. The modern reader keeps an unknown atom as an
// opaque leaf and goes on, takes a size of 1 as a 64-bit size behind the
// name and a size of 0 as "to the end of the parent (or of the file)", and
// prints nothing. It also takes a cut file as cut (CutEndsFile): a
// top-level head cut short, a size it can't take, or an atom that reaches
// past the end of the file is where the file ends, and the atoms before it
// are the whole tree; only a file without one whole atom fails.
struct TreeRules {
    AtomReader Reader;
    bool UnknownEndsScan;
    bool WideSizes;
    bool Quiet;
    bool CutEndsFile;
};
constexpr TreeRules kClassicTreeRules{kClassicReader, true, false, false, false};
constexpr TreeRules kModernTreeRules{kModernReader, false, true, true, true};

// With a window (the modern open passes the handle's read-ahead window)
// heads are read through it; without one, from the stream.
int32_t ReadAtomTree(Root_atom *root, const TreeRules &rules = kClassicTreeRules,
                     ReadAhead **window = nullptr);
int32_t ReadTopLevelAtoms(Root_atom *root, const TreeRules &rules = kClassicTreeRules,
                          ReadAhead **window = nullptr);
int32_t ReadChildAtoms(FILE *stream, AtomNode *parent, uint32_t childOffset);

// ---- Validation (validation.cpp) -----------------------------------------

uint32_t CheckAtomTree(Root_atom *root);
bool CheckAtom(AtomNode *node);

// ---- Record allocation (allocation.cpp) ----------------------------------

int32_t AllocAtomRecord(uint32_t size, const char *name, uint8_t **record);
int32_t AllocNodeRecord(AtomNode *node);  // one node, by its schema
int32_t AllocChildRecords(AtomNode *node);
int32_t AllocTreeRecords(Root_atom *root);

// ---- Payload records (records.cpp) ---------------------------------------

int32_t ExtractTreeRecords(Root_atom *root);
// The modern path: heads by version and flags and bounded by the atom,
// tables that fit their atom, no messages; read in file order through the
// read-ahead window.
int32_t ExtractModernTreeRecords(Root_atom *root, ReadAhead **window);
int32_t ExtractChildRecords(AtomNode *node, FILE *stream);
int32_t ReadRecordHead(uint32_t byteCount, AtomNode *node, FILE *stream, uint8_t *record);
int32_t ExtractVariablePart(AtomNode *node, const AtomSchema *schema, FILE *stream);
void *LoadTable(const AtomSchema *schema, uint32_t count, AtomNode *node, FILE *stream);
void ReleaseVariablePart(AtomNode *node);
void ReleaseChildAtoms(AtomNode *node);
// Releases a whole top-level list with records, variable parts and nodes.
void ReleaseAtomList(AtomNode *first);

// ---- Tree walks shared by the track model and the writer -----------------

// First child of `atom` named `name`, or null.
AtomNode *FindChild(const AtomNode *atom, const char *name);
// Follows a path of names down from `atom` (each looked up among the
// children of the one before). Returns the last atom, or null; `missing`
// receives the name that was not found.
AtomNode *WalkPath(const AtomNode *atom, const char *const *names, size_t count,
                   const char **missing);

// ---- Templates (templates.cpp) -------------------------------------------

struct TemplateRow {
    AtomNode *RowNode;
    uint32_t ParentRow;
    char RowName[8];
};

int32_t BuildAtomTree(AtomNode **root, TemplateRow *rows);
int32_t CreateTrackTree(AtomNode **root, int32_t trackType, AtomNode *parent, AtomNode *sibling,
                        uint8_t compositionTimes);
// The top level of a new file: "ftyp", "moov" ("mvhd", "iods") and "mdat";
// of a fragmented file "moov" with its "mvhd" alone.
int32_t CreateFileTree(Root_atom *root, bool fragmented = false);
