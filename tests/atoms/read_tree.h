// Test helpers for the atom tree: a byte image read into a tree the way
// MP4FileOpen's first steps do it, and a compact outline of a tree.
#pragma once

#include <cstdio>
#include <string>

#include "atoms/atoms.h"
#include "support/test_support.h"

namespace atoms_test {

// Writes `bytes` to a temp file and runs the tree reader over it; with
// `withRecords` also allocation and extraction. Releases all on exit.
struct ReadTree {
    explicit ReadTree(const testing_support::Bytes &bytes, bool withRecords = false)
        : file(bytes) {
        root.FileStream = std::fopen(file.c_str(), "rb");
        root.FileSize = uint32_t(bytes.size());
        result = ReadAtomTree(&root);
        if (withRecords && result == 1 && AllocTreeRecords(&root) == 1) {
            ExtractTreeRecords(&root);
        }
    }
    ~ReadTree() {
        ReleaseAtomList(root.FirstAtom);
        if (root.FileStream != nullptr) std::fclose(root.FileStream);
    }
    ReadTree(const ReadTree &) = delete;
    ReadTree &operator=(const ReadTree &) = delete;

    testing_support::TempFile file;
    Root_atom root{};
    int32_t result = 0;
};

// "ftyp moov[mvhd trak[tkhd]]": names in list order, children in brackets.
inline std::string Outline(const AtomNode *first) {
    std::string out;
    for (const AtomNode *node = first; node != nullptr; node = node->NextSibling) {
        if (!out.empty()) out += ' ';
        out += std::string(node->AtomName, 4);
        if (node->FirstChild != nullptr) out += "[" + Outline(node->FirstChild) + "]";
    }
    return out;
}

// Follows first-child links down `levels` levels.
inline const AtomNode *Descend(const AtomNode *node, int levels) {
    for (int i = 0; i < levels && node != nullptr; ++i) node = node->FirstChild;
    return node;
}

}  // namespace atoms_test
