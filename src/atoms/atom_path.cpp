// MP4GetAtom: any atom of a read handle's tree by its path of names, its
// payload read from the file.
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"

namespace {

constexpr int32_t kAtomBadArguments = -99;
constexpr int32_t kAtomBadPath = -98;
constexpr int32_t kAtomNotFound = -97;
constexpr int32_t kAtomShortFile = -96;
constexpr int32_t kAtomNoMemory = -95;
constexpr int32_t kAtomTooLarge = -94;

// Bounds of a path: its characters as a file path's, its steps as the
// tree's depth, an index of at most eight digits.
constexpr size_t kMaxPathChars = kFilePathBytes - 1;
constexpr size_t kMaxSteps = kMaxAtomDepth;
constexpr uint32_t kMaxIndex = 99999999;
// A payload is handed out whole; larger ones are refused before the read.
constexpr uint64_t kMaxPayloadBytes = 16u << 20;
// A "uuid" atom's 16-byte type stands behind its head.
constexpr uint32_t kUuidTypeBytes = 16;

struct Step {
    char Name[4];
    bool Any;        // "*"
    uint32_t Index;  // 1-based among the siblings it matches
};

// One step of a path, from `text` up to `end` ("name" or "name[index]").
// The UTF-8 copyright sign stands for the byte 0xA9 of "ilst" item names.
bool ParseStep(const char *text, const char *end, Step *step) {
    step->Index = 1;
    const char *open = static_cast<const char *>(std::memchr(text, '[', size_t(end - text)));
    if (open != nullptr) {
        if (end[-1] != ']' || open + 2 > end - 1) return false;
        uint32_t index = 0;
        for (const char *digit = open + 1; digit < end - 1; ++digit) {
            if (*digit < '0' || *digit > '9' || index > kMaxIndex / 10) return false;
            index = index * 10 + uint32_t(*digit - '0');
        }
        if (index == 0 || index > kMaxIndex) return false;
        step->Index = index;
        end = open;
    }
    step->Any = end - text == 1 && *text == '*';
    if (step->Any) return true;
    size_t length = 0;
    for (const char *at = text; at < end; ++at) {
        if (length == 4) return false;
        if (uint8_t(at[0]) == 0xC2 && at + 1 < end && uint8_t(at[1]) == 0xA9) ++at;
        step->Name[length++] = *at;
    }
    return length == 4;
}

// The steps of a whole path; false when it is malformed.
bool ParsePath(const char *path, Step *steps, size_t *count) {
    const size_t length = strnlen(path, kMaxPathChars + 1);
    if (length == 0 || length > kMaxPathChars) return false;
    *count = 0;
    const char *end = path + length;
    for (const char *at = path; at <= end;) {
        const char *slash = static_cast<const char *>(std::memchr(at, '/', size_t(end - at)));
        const char *stepEnd = slash != nullptr ? slash : end;
        if (*count == kMaxSteps || stepEnd == at || !ParseStep(at, stepEnd, &steps[*count]))
            return false;
        ++*count;
        at = stepEnd + 1;
    }
    return true;
}

// The atom among `first` and its siblings that a step names.
const AtomNode *FindStep(const AtomNode *first, const Step &step) {
    uint32_t seen = 0;
    for (const AtomNode *node = first; node != nullptr; node = node->NextSibling) {
        if ((step.Any || std::memcmp(node->AtomName, step.Name, 4) == 0) && ++seen == step.Index)
            return node;
    }
    return nullptr;
}

}  // namespace

int32_t MP4GetAtom(MP4_local_file *file, const char *path, uint8_t **data, uint64_t *size) {
    if (file == nullptr || file->RootAtom == nullptr || path == nullptr || data == nullptr ||
        size == nullptr)
        return kAtomBadArguments;
    Step steps[kMaxSteps];
    size_t count = 0;
    if (!ParsePath(path, steps, &count)) return kAtomBadPath;
    const Root_atom *root = file->RootAtom;
    const AtomNode *node = FindStep(root->FirstAtom, steps[0]);
    for (size_t i = 1; i < count && node != nullptr; ++i) node = FindStep(node->FirstChild, steps[i]);
    // A node of no size is a template's: a write handle's atoms are not in
    // a file yet.
    if (node == nullptr || node->AtomSize == 0) return kAtomNotFound;

    uint64_t head = uint64_t(kBareHeadLength) + node->LargeHead;
    if (AtomNameEquals(node->AtomName, "uuid")) head += kUuidTypeBytes;
    const uint64_t length = node->AtomSize > head ? node->AtomSize - head : 0;
    if (length > kMaxPayloadBytes) {
        *size = length;
        return kAtomTooLarge;
    }
    if (node->AtomOffset + head + length > root->FileSize) return kAtomShortFile;
    uint8_t *block = static_cast<uint8_t *>(std::malloc(length > 0 ? size_t(length) : 1));
    if (block == nullptr) return kAtomNoMemory;
    if (length > 0 && ReadFileAt(root->FileStream, node->AtomOffset + head, block, size_t(length)) != length) {
        std::free(block);
        return kAtomShortFile;
    }
    *data = block;
    *size = length;
    return 1;
}
