// Tree validation: compares each container with the catalogue's child
// rules and reports on standard output. It changes nothing, and no caller
// stops for it.
#include <cstdio>

#include "atoms/atoms.h"

namespace {

struct PrintableName {
    char text[5];
    explicit PrintableName(const char *name) { CopyAtomName(text, name); }
};

bool CheckAtomAt(AtomNode *node, uint32_t depth) {
    PrintableName name(node->AtomName);
    // An atom without an entry ("free", an unknown top-level name) leaves
    // the schema zeroed: no rules, nothing to report.
    AtomSchema schema{};
    if (node->FirstChild == nullptr) {
        GetAtomSchema(node, &schema);
        if (schema.RuleCount == 0) return true;
        PrintDiagnostic("\n Without required child atom at [%s] \n", name.text);
        return false;
    }

    // Children first, so that their messages come before this atom's. The
    // depth bound keeps a hostile tree from running the stack out.
    uint32_t childCount = 0;
    for (AtomNode *child = node->FirstChild; child != nullptr; child = child->NextSibling) {
        ++childCount;
        if (child->FirstChild != nullptr && depth < kMaxAtomDepth) CheckAtomAt(child, depth + 1);
    }

    GetAtomSchema(node, &schema);
    if (schema.RuleCount == 0) {
        PrintDiagnostic("\n This Atom[%s] is not a container atom \n", name.text);
        return false;
    }

    uint32_t counters[kMaxChildRules] = {};
    uint32_t matched = 0;
    for (uint32_t rule = 0; rule < schema.RuleCount; ++rule) {
        for (AtomNode *child = node->FirstChild; child != nullptr; child = child->NextSibling) {
            if (AtomNameEquals(child->AtomName, schema.ChildRules[rule].ChildName)) {
                ++counters[rule];
                ++matched;
            }
        }
    }
    if (matched != childCount) {
        PrintDiagnostic("\n There exist at lest one atom not belong to this atom[%s] \n", name.text);
        return false;
    }

    for (uint32_t rule = 0; rule < schema.RuleCount; ++rule) {
        const ChildRule &childRule = schema.ChildRules[rule];
        PrintableName childName(childRule.ChildName);
        if (childRule.Required == 1 && counters[rule] == 0) {
            PrintDiagnostic("\n This atom[%s] must have such type of atom[%s] \n", name.text,
                        childName.text);
            return false;
        }
        if (childRule.MaxCount == 1 && counters[rule] > 1) {
            PrintDiagnostic("\n This atom[%s] must only have one such type of atom[%s] \n",
                        name.text, childName.text);
            return false;
        }
    }
    return true;
}

}  // namespace

bool CheckAtom(AtomNode *node) { return CheckAtomAt(node, 0); }

uint32_t CheckAtomTree(Root_atom *root) {
    for (AtomNode *atom = root->FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        CheckAtom(atom);
    }
    return 1;
}
