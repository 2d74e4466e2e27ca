// Template trees: the fixed shapes of a new file's top level and of the
// "trak" subtree of each track type that the library writes. Row order is
// child order, so these tables alone fix which atoms a written file holds
// and in which order.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "atoms/atoms.h"

namespace {

// Row 0 is the head row: its ParentRow holds the number of rows behind it.
constexpr TemplateRow kVideoTemplate[] = {
    {nullptr, 19, ""},
    {nullptr, 0, "trak"},  {nullptr, 1, "tkhd"},  {nullptr, 1, "mdia"},  {nullptr, 3, "mdhd"},
    {nullptr, 3, "hdlr"},  {nullptr, 3, "minf"},  {nullptr, 6, "vmhd"},  {nullptr, 6, "dinf"},
    {nullptr, 8, "dref"},  {nullptr, 9, "url "},  {nullptr, 6, "stbl"},  {nullptr, 11, "stsd"},
    {nullptr, 12, "mp4v"}, {nullptr, 13, "esds"}, {nullptr, 11, "stts"}, {nullptr, 11, "stsz"},
    {nullptr, 11, "stsc"}, {nullptr, 11, "stco"}, {nullptr, 11, "stss"},
};

constexpr TemplateRow kVideoCttsTemplate[] = {
    {nullptr, 20, ""},
    {nullptr, 0, "trak"},  {nullptr, 1, "tkhd"},  {nullptr, 1, "mdia"},  {nullptr, 3, "mdhd"},
    {nullptr, 3, "hdlr"},  {nullptr, 3, "minf"},  {nullptr, 6, "vmhd"},  {nullptr, 6, "dinf"},
    {nullptr, 8, "dref"},  {nullptr, 9, "url "},  {nullptr, 6, "stbl"},  {nullptr, 11, "stsd"},
    {nullptr, 12, "mp4v"}, {nullptr, 13, "esds"}, {nullptr, 11, "stts"}, {nullptr, 11, "stsz"},
    {nullptr, 11, "stsc"}, {nullptr, 11, "stco"}, {nullptr, 11, "stss"}, {nullptr, 11, "ctts"},
};

constexpr TemplateRow kAudioTemplate[] = {
    {nullptr, 18, ""},
    {nullptr, 0, "trak"},  {nullptr, 1, "tkhd"},  {nullptr, 1, "mdia"},  {nullptr, 3, "mdhd"},
    {nullptr, 3, "hdlr"},  {nullptr, 3, "minf"},  {nullptr, 6, "smhd"},  {nullptr, 6, "dinf"},
    {nullptr, 8, "dref"},  {nullptr, 9, "url "},  {nullptr, 6, "stbl"},  {nullptr, 11, "stsd"},
    {nullptr, 12, "mp4a"}, {nullptr, 13, "esds"}, {nullptr, 11, "stts"}, {nullptr, 11, "stsz"},
    {nullptr, 11, "stsc"}, {nullptr, 11, "stco"},
};

constexpr TemplateRow kOdTemplate[] = {
    {nullptr, 20, ""},
    {nullptr, 0, "trak"},  {nullptr, 1, "tkhd"},  {nullptr, 1, "tref"},  {nullptr, 1, "mdia"},
    {nullptr, 3, "mpod"},  {nullptr, 4, "mdhd"},  {nullptr, 4, "hdlr"},  {nullptr, 4, "minf"},
    {nullptr, 8, "nmhd"},  {nullptr, 8, "dinf"},  {nullptr, 10, "dref"}, {nullptr, 11, "url "},
    {nullptr, 8, "stbl"},  {nullptr, 13, "stsd"}, {nullptr, 14, "mp4s"}, {nullptr, 15, "esds"},
    {nullptr, 13, "stts"}, {nullptr, 13, "stsz"}, {nullptr, 13, "stsc"}, {nullptr, 13, "stco"},
};

constexpr TemplateRow kSceneTemplate[] = {
    {nullptr, 18, ""},
    {nullptr, 0, "trak"},  {nullptr, 1, "tkhd"},  {nullptr, 1, "mdia"},  {nullptr, 3, "mdhd"},
    {nullptr, 3, "hdlr"},  {nullptr, 3, "minf"},  {nullptr, 6, "nmhd"},  {nullptr, 6, "dinf"},
    {nullptr, 8, "dref"},  {nullptr, 9, "url "},  {nullptr, 6, "stbl"},  {nullptr, 11, "stsd"},
    {nullptr, 12, "mp4s"}, {nullptr, 13, "esds"}, {nullptr, 11, "stts"}, {nullptr, 11, "stsz"},
    {nullptr, 11, "stsc"}, {nullptr, 11, "stco"},
};

constexpr TemplateRow kFileTemplate[] = {
    {nullptr, 6, ""},
    {nullptr, 0, "root"}, {nullptr, 1, "ftyp"}, {nullptr, 1, "moov"},
    {nullptr, 1, "mdat"}, {nullptr, 3, "mvhd"}, {nullptr, 3, "iods"},
};

// A fragmented file's "moov" starts as its header alone: the tracks and
// "mvex" join it when the first frame comes, and "ftyp" is written with
// the brands of a fragmented file.
constexpr TemplateRow kFragmentedFileTemplate[] = {
    {nullptr, 3, ""},
    {nullptr, 0, "root"}, {nullptr, 1, "moov"}, {nullptr, 2, "mvhd"},
};

template <size_t N>
constexpr bool HeadRowCountsRows(const TemplateRow (&rows)[N]) {
    return rows[0].ParentRow == N - 1;
}
static_assert(HeadRowCountsRows(kVideoTemplate) && HeadRowCountsRows(kVideoCttsTemplate) &&
                  HeadRowCountsRows(kAudioTemplate) && HeadRowCountsRows(kOdTemplate) &&
                  HeadRowCountsRows(kSceneTemplate) && HeadRowCountsRows(kFileTemplate) &&
                  HeadRowCountsRows(kFragmentedFileTemplate),
              "each head row counts the rows behind it");

struct TemplateTable {
    const TemplateRow *rows;
    size_t count;  // rows with the head row
};

template <size_t N>
constexpr TemplateTable Table(const TemplateRow (&rows)[N]) {
    return {rows, N};
}

// The template of a track type, or a null table for a type that has no
// tree (hint).
TemplateTable ChooseTemplate(int32_t trackType, uint8_t compositionTimes) {
    switch (trackType) {
    case MP4_TRACK_VIDEO:
        return compositionTimes != 0 ? Table(kVideoCttsTemplate) : Table(kVideoTemplate);
    case MP4_TRACK_AUDIO: return Table(kAudioTemplate);
    case MP4_TRACK_OD: return Table(kOdTemplate);
    case MP4_TRACK_SCENE: return Table(kSceneTemplate);
    default: return {nullptr, 0};
    }
}

// Builds from a working copy of a constant template; the copy goes when
// the call ends, the nodes stay.
int32_t BuildFromTemplate(AtomNode **root, const TemplateTable &table) {
    std::vector<TemplateRow> rows(table.rows, table.rows + table.count);
    return BuildAtomTree(root, rows.data());
}

}  // namespace

int32_t BuildAtomTree(AtomNode **root, TemplateRow *rows) {
    const uint32_t count = rows[0].ParentRow;
    for (uint32_t row = 1; row <= count; ++row) {
        AtomNode *node = static_cast<AtomNode *>(ZeroAlloc(sizeof(AtomNode)));
        if (node == nullptr) {
            // Nothing links these nodes yet: release the ones made so far.
            for (uint32_t made = 1; made < row; ++made) {
                std::free(rows[made].RowNode);
                rows[made].RowNode = nullptr;
            }
            return -99;
        }
        CopyAtomName(node->AtomName, rows[row].RowName);
        rows[row].RowNode = node;
    }

    // Children are appended in row order, so that they stand in it.
    for (uint32_t parent = 1; parent <= count; ++parent) {
        AtomNode *parentNode = rows[parent].RowNode;
        AtomNode *lastChild = nullptr;
        for (uint32_t child = 2; child <= count; ++child) {
            if (rows[child].ParentRow != parent) continue;
            AtomNode *childNode = rows[child].RowNode;
            childNode->ParentAtom = parentNode;
            if (lastChild == nullptr) {
                parentNode->FirstChild = childNode;
            } else {
                lastChild->NextSibling = childNode;
            }
            lastChild = childNode;
        }
    }
    *root = rows[1].RowNode;
    return 1;
}

int32_t CreateTrackTree(AtomNode **root, int32_t trackType, AtomNode *parent, AtomNode *sibling,
                        uint8_t compositionTimes) {
    if (trackType < MP4_TRACK_VIDEO || trackType > MP4_TRACK_SCENE) return -99;
    const TemplateTable table = ChooseTemplate(trackType, compositionTimes);
    if (table.rows == nullptr) return 1;  // hint tracks have no tree

    AtomNode *built = nullptr;
    if (BuildFromTemplate(&built, table) != 1) return -99;
    built->NextSibling = sibling;
    built->ParentAtom = parent;
    *root = built;
    return 1;
}

int32_t CreateFileTree(Root_atom *root, bool fragmented) {
    AtomNode *fileRoot = nullptr;
    const TemplateTable table = fragmented ? Table(kFragmentedFileTemplate) : Table(kFileTemplate);
    if (BuildFromTemplate(&fileRoot, table) != 1) return -99;

    // "root" exists only here: its children become the top-level list.
    root->FirstAtom = fileRoot->FirstChild;
    for (AtomNode *atom = root->FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        atom->ParentAtom = nullptr;
    }
    std::free(fileRoot);
    return 1;
}
