// Walks down a tree by names, shared by the track model and the writer.
#include "atoms/atoms.h"

AtomNode *FindChild(const AtomNode *atom, const char *name) {
    if (atom == nullptr || name == nullptr) return nullptr;
    for (AtomNode *child = atom->FirstChild; child != nullptr; child = child->NextSibling) {
        if (AtomNameEquals(child->AtomName, name)) return child;
    }
    return nullptr;
}

AtomNode *WalkPath(const AtomNode *atom, const char *const *names, size_t count,
                   const char **missing) {
    AtomNode *current = const_cast<AtomNode *>(atom);
    for (size_t i = 0; i < count && current != nullptr; ++i) {
        AtomNode *next = FindChild(current, names[i]);
        if (next == nullptr && missing != nullptr) *missing = names[i];
        current = next;
    }
    return current;
}
