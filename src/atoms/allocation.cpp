// Record allocation: every atom of a tree gets a zeroed realStructure of
// the size the catalogue gives, with its name in HeadName.
#include <cstdio>
#include <cstring>

#include "atoms/atoms.h"

namespace {

// Gives `node` its record and prints the library's message when there is
// no memory for it.
bool GiveRecord(AtomNode *node) {
    if (AllocNodeRecord(node) == 1) return true;
    char name[5];
    CopyAtomName(name, node->AtomName);
    PrintDiagnostic("atom[%s] allocate error\n", name);
    return false;
}

}  // namespace

int32_t AllocAtomRecord(uint32_t size, const char *name, uint8_t **record) {
    if (size == 0) return -99;
    uint8_t *block = static_cast<uint8_t *>(ZeroAlloc(size));
    if (block == nullptr) return -99;
    // HeadName is the record's second 32-bit word; HeadSize stays 0.
    if (size >= field::kHeadName + 4) std::memcpy(block + field::kHeadName, name, 4);
    *record = block;
    return 1;
}

// Atoms without a schema ("free", "root", names the catalogue doesn't
// hold) get the 8-byte record of a bare head, as "skip" has.
int32_t AllocNodeRecord(AtomNode *node) {
    const size_t size = NodeAllocSize(node);
    uint8_t *record = nullptr;
    if (AllocAtomRecord(uint32_t(size), node->AtomName, &record) != 1) return -99;
    node->realStructure = record;
    return 1;
}

// Recursion follows the tree, whose depth the reader and the templates
// bound (kMaxAtomDepth).
int32_t AllocChildRecords(AtomNode *node) {
    for (AtomNode *child = node->FirstChild; child != nullptr; child = child->NextSibling) {
        if (child->FirstChild != nullptr && AllocChildRecords(child) != 1) return -1;
        if (!GiveRecord(child)) return -1;
    }
    return 1;
}

int32_t AllocTreeRecords(Root_atom *root) {
    for (AtomNode *atom = root->FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        if (AllocChildRecords(atom) != 1) return -99;
        if (!GiveRecord(atom)) return -99;
    }
    return 1;
}
