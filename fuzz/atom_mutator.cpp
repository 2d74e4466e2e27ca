// A mutator that knows atoms, for the targets that read MP4 files. It reads
// the input as a tree of atoms (containers by name, bounded in depth and
// count; bytes that don't read as an atom are kept as they are) and edits
// the tree: it duplicates an atom, drops one, swaps two siblings, moves one
// into another container, splices in one from another input, or sets a
// size or count field to 0, 1, a boundary or a value another atom holds.
// The sizes of the parents are then written again, except in a share of
// the edits that leaves them as they were. A share of the calls goes to
// libFuzzer's own byte mutations.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t maxSize);

namespace {

constexpr int kMaxDepth = 10;
constexpr size_t kMaxAtoms = 4000;

struct Atom {
    char name[4] = {};
    bool large = false, raw = false, container = false;  // raw: bytes that did not read as an atom
    uint64_t stored = 0;        // the size the input gave it; 0 for none
    std::vector<uint8_t> body;  // the fields before the children; of a leaf, its payload
    std::vector<Atom> kids;
};
using Atoms = std::vector<Atom>;

// Containers, with the bytes of fields in front of their children.
constexpr struct { char name[5]; uint32_t fields; } kContainers[] = {
    {"moov", 0}, {"trak", 0}, {"mdia", 0}, {"minf", 0}, {"stbl", 0}, {"dinf", 0}, {"edts", 0},
    {"udta", 0}, {"mvex", 0}, {"moof", 0}, {"traf", 0}, {"mfra", 0}, {"sinf", 0}, {"schi", 0},
    {"ilst", 0}, {"meta", 4}, {"stsd", 8}, {"dref", 8}, {"avc1", 78}, {"hvc1", 78},
    {"mp4v", 78}, {"s263", 78}, {"encv", 78}, {"mp4a", 28}, {"enca", 28}, {"samr", 28}};

uint64_t Get(const uint8_t *p, int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | p[i];
    return value;
}

void Put(uint8_t *p, int bytes, uint64_t value) {
    for (int i = bytes - 1; i >= 0; --i, value >>= 8) p[i] = uint8_t(value);
}

Atoms Parse(const uint8_t *p, size_t n, int depth = 0, size_t *budget = nullptr) {
    size_t total = kMaxAtoms;
    budget = budget != nullptr ? budget : &total;
    Atoms atoms;
    size_t at = 0;
    while (n - at >= 8 && *budget > 0) {
        uint64_t size = Get(p + at, 4), head = 8;
        if (size == 1 && n - at >= 16) size = Get(p + at + 8, 8), head = 16;
        if (size == 0) size = n - at;
        if (size < head || size > n - at) break;
        --*budget;
        Atom atom;
        std::memcpy(atom.name, p + at + 4, 4);
        atom.large = head == 16, atom.stored = size;
        const uint8_t *payload = p + at + head;
        const size_t length = size_t(size - head);
        size_t fields = length;
        for (const auto &c : kContainers)
            if (std::memcmp(c.name, atom.name, 4) == 0 && c.fields <= length && depth < kMaxDepth)
                fields = c.fields, atom.container = true;
        atom.body.assign(payload, payload + fields);
        if (fields < length) atom.kids = Parse(payload + fields, length - fields, depth + 1, budget);
        atoms.push_back(std::move(atom));
        at += size_t(size);
    }
    if (at < n) {
        atoms.emplace_back();
        atoms.back().raw = true;
        atoms.back().body.assign(p + at, p + n);
    }
    return atoms;
}

// Where an atom stands in the output, for the edits of fields.
struct Place { size_t start; bool large; };

// Writes the atoms; with `fixSizes` false every atom the input had keeps
// its stored size, right or wrong after the edit.
void Write(const Atoms &atoms, bool fixSizes, std::vector<uint8_t> *out, std::vector<Place> *places) {
    for (const Atom &atom : atoms) {
        const size_t start = out->size();
        if (!atom.raw) {
            places->push_back({start, atom.large});
            out->resize(start + (atom.large ? 16 : 8));
            std::memcpy(out->data() + start + 4, atom.name, 4);
        }
        out->insert(out->end(), atom.body.begin(), atom.body.end());
        if (atom.raw) continue;
        Write(atom.kids, fixSizes, out, places);
        const uint64_t size = fixSizes || atom.stored == 0 ? out->size() - start : atom.stored;
        Put(out->data() + start, 4, atom.large ? 1 : uint32_t(size));
        if (atom.large) Put(out->data() + start + 8, 8, size);
    }
}

// A value for a 32-bit field that readers must take care with: the
// boundaries, or one off or half the value it holds.
uint32_t Boundary(uint32_t now, std::minstd_rand &random) {
    const uint32_t values[] = {0, 1, 2, 7, 8, 0xFF, 0xFFFF, 0x10000, 0x7FFFFFFF, 0x80000000,
                               0xFFFFFFFE, 0xFFFFFFFF, now + 1, now - 1, now / 2};
    return values[random() % 15];
}

// Every list of siblings, and every atom by its list and index.
struct Ref { Atoms *list; size_t index; Atom &atom() const { return (*list)[index]; } };
void Collect(Atoms *list, std::vector<Atoms *> *lists, std::vector<Ref> *refs) {
    lists->push_back(list);
    for (size_t i = 0; i < list->size(); ++i) {
        if ((*list)[i].raw) continue;
        refs->push_back({list, i});
        if ((*list)[i].container) Collect(&(*list)[i].kids, lists, refs);
    }
}

template <typename T>
T &Pick(std::vector<T> &from, std::minstd_rand &random) { return from[random() % from.size()]; }

// Puts `atom` into the tree: next to an atom of its name where there is one
// (a second table of a kind is a case readers get wrong), else anywhere.
void Insert(Atoms *tree, Atom atom, std::minstd_rand &random) {
    std::vector<Atoms *> lists;
    std::vector<Ref> refs, named;
    Collect(tree, &lists, &refs);
    for (const Ref &r : refs)
        if (std::memcmp(r.atom().name, atom.name, 4) == 0) named.push_back(r);
    if (!named.empty() && random() % 2 == 0) {
        const Ref r = Pick(named, random);
        r.list->insert(r.list->begin() + long(r.index + random() % 2), std::move(atom));
        return;
    }
    Atoms *list = Pick(lists, random);
    list->insert(list->begin() + long(random() % (list->size() + 1)), std::move(atom));
}

// One edit of the tree; false when it found nothing to edit.
bool EditTree(Atoms *tree, std::minstd_rand &random) {
    std::vector<Atoms *> lists;
    std::vector<Ref> refs;
    Collect(tree, &lists, &refs);
    if (refs.empty()) return false;
    const Ref r = Pick(refs, random);
    const auto at = r.list->begin() + long(r.index);
    switch (random() % 4) {
    case 0: {  // duplicate; in half the cases with another value in one of the copy's
               // first words behind version and flags (a count, a constant size)
        Atom copy = r.atom();
        const size_t word = 4 * (1 + random() % 3);
        if (random() % 2 == 0 && copy.body.size() >= word + 4)
            Put(copy.body.data() + word, 4, Boundary(uint32_t(Get(copy.body.data() + word, 4)), random));
        r.list->insert(at + 1, std::move(copy));
        break;
    }
    case 1: r.list->erase(at); break;                                              // drop
    case 2: std::swap(r.atom(), (*r.list)[random() % r.list->size()]); break;  // swap two siblings
    default: {  // move into another container
        Atom atom = std::move(r.atom());
        r.list->erase(at);
        Insert(tree, std::move(atom), random);
    }
    }
    return true;
}

// Sets a size field, or a word of an atom's fields (its first words hold
// the version and flags, then a count or a constant size), to a value
// readers must take care with.
void EditField(std::vector<uint8_t> *out, const std::vector<Place> &places, std::minstd_rand &random) {
    const Place &place = places[random() % places.size()], &other = places[random() % places.size()];
    const size_t head = place.large ? 16 : 8, otherHead = other.large ? 16 : 8;
    const bool sizeField = random() % 3 == 0;
    const size_t word = head + 4 * (random() % 6);
    if (sizeField && place.large) {
        const uint64_t values[] = {0, 1, 8, 15, 16, 0xFFFFFFFFull, 1ull << 32, 1ull << 63, ~0ull};
        return Put(out->data() + place.start + 8, 8, values[random() % 9]);
    }
    const size_t at = sizeField ? place.start : place.start + word;
    if (at + 4 > out->size()) return;
    const size_t otherAt = other.start + (sizeField ? 0 : word - head + otherHead);
    uint32_t value = Boundary(uint32_t(Get(out->data() + at, 4)), random);
    if (random() % 4 == 0 && otherAt + 4 <= out->size()) value = uint32_t(Get(out->data() + otherAt, 4));
    Put(out->data() + at, 4, value);
}

size_t Emit(const Atoms &tree, bool fixSizes, uint8_t *data, size_t maxSize, std::minstd_rand &random, bool editField) {
    std::vector<uint8_t> out;
    std::vector<Place> places;
    Write(tree, fixSizes, &out, &places);
    if (editField && places.empty()) return 0;  // nothing to edit: junk
    if (editField) EditField(&out, places, random);
    if (out.empty() || out.size() > maxSize) return 0;
    std::memcpy(data, out.data(), out.size());
    return out.size();
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t maxSize, unsigned seed) {
    std::minstd_rand random(seed);
    if (random() % 3 == 0) return LLVMFuzzerMutate(data, size, maxSize);
    Atoms tree = Parse(data, size);
    const bool structural = random() % 2 == 0;
    if (structural && !EditTree(&tree, random)) return LLVMFuzzerMutate(data, size, maxSize);
    const size_t written = Emit(tree, random() % 8 != 0, data, maxSize, random, !structural);
    return written > 0 ? written : LLVMFuzzerMutate(data, size, maxSize);
}

// Splices an atom of the second input (with its children) into the first;
// in half the cases one whose name the first has, which Insert then puts
// beside its namesake.
extern "C" size_t LLVMFuzzerCustomCrossOver(const uint8_t *data1, size_t size1, const uint8_t *data2, size_t size2,
                                            uint8_t *out, size_t maxOutSize, unsigned seed) {
    std::minstd_rand random(seed);
    Atoms tree = Parse(data1, size1), donor = Parse(data2, size2);
    std::vector<Atoms *> lists;
    std::vector<Ref> refs, own, shared;
    std::set<std::string> names;
    Collect(&tree, &lists, &own);
    for (const Ref &o : own) names.insert(std::string(o.atom().name, 4));
    Collect(&donor, &lists, &refs);
    for (const Ref &r : refs)
        if (names.count(std::string(r.atom().name, 4)) != 0) shared.push_back(r);
    if (refs.empty()) return 0;
    const Ref r = Pick(!shared.empty() && random() % 2 == 0 ? shared : refs, random);
    Insert(&tree, r.atom(), random);
    return Emit(tree, random() % 8 != 0, out, maxOutSize, random, false);
}
