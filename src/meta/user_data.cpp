// The tags of "udta" strings (3GPP, QuickTime's international text, a
// track's "name") and of the header times ("mvhd", "tkhd", "mdhd").
#include <cstdio>
#include <cstring>

#include "meta/meta.h"
#include "mp4core.h"

namespace {

enum class StringForm : uint8_t {
    k3gppText,      // version and flags, language, a terminated string
    k3gppYear,      // version and flags, a 16-bit year
    k3gppLocation,  // version and flags, language, name, role, position, ...
    kQuickTimeText, // 16-bit length, 16-bit language, the text
    kPlainText,     // the text alone
};

struct StringRow {
    char Name[5];
    const char *Key;
    StringForm Form;
};

constexpr StringRow kStringRows[] = {
    {"titl", "title", StringForm::k3gppText},
    {"perf", "artist", StringForm::k3gppText},
    {"auth", "artist", StringForm::k3gppText},
    {"albm", "album", StringForm::k3gppText},
    {"dscp", "description", StringForm::k3gppText},
    {"cprt", "copyright", StringForm::k3gppText},
    {"gnre", "genre", StringForm::k3gppText},
    {"yrrc", "date", StringForm::k3gppYear},
    {"loci", "location", StringForm::k3gppLocation},
    {"\xA9xyz", "location", StringForm::kQuickTimeText},
    {"\xA9nam", "title", StringForm::kQuickTimeText},
    {"\xA9" "ART", "artist", StringForm::kQuickTimeText},
    {"\xA9" "alb", "album", StringForm::kQuickTimeText},
    {"\xA9" "day", "date", StringForm::kQuickTimeText},
    {"\xA9" "cmt", "comment", StringForm::kQuickTimeText},
    {"\xA9" "des", "description", StringForm::kQuickTimeText},
    {"\xA9" "cpy", "copyright", StringForm::kQuickTimeText},
    {"\xA9wrt", "composer", StringForm::kQuickTimeText},
    {"\xA9too", "encoder", StringForm::kQuickTimeText},
    {"\xA9swr", "software", StringForm::kQuickTimeText},
    {"\xA9mak", "make", StringForm::kQuickTimeText},
    {"\xA9mod", "model", StringForm::kQuickTimeText},
    {"name", "title", StringForm::kPlainText},
};

// A 16.16 fixed-point number of a "loci" position.
double Fixed16(const uint8_t *bytes) { return int32_t(GetBE32(bytes, 0)) / 65536.0; }

// The text of a string atom; false when its fields don't fit it.
bool ReadString(ByteSpan payload, StringForm form, std::string *text) {
    size_t used = 0;
    switch (form) {
    case StringForm::k3gppText:
        if (payload.Size < 6) return false;
        *text = TerminatedText(payload.From(6), &used);
        return true;
    case StringForm::k3gppYear:
        if (payload.Size < 6) return false;
        *text = Decimal(GetBE16(payload.Data, 4));
        return true;
    case StringForm::k3gppLocation: {
        if (payload.Size < 6) return false;
        TerminatedText(payload.From(6), &used);
        const size_t position = 6 + used + 1;  // behind the name and the role
        if (!payload.Holds(position, 12)) return false;
        char iso[64];
        std::snprintf(iso, sizeof iso, "%+08.4f%+09.4f%+08.3f/", Fixed16(payload.Data + position + 4),
                      Fixed16(payload.Data + position), Fixed16(payload.Data + position + 8));
        *text = iso;
        return true;
    }
    case StringForm::kQuickTimeText: {
        // The first of its texts; a length beyond the atom gives none.
        if (payload.Size < 4) return false;
        const uint32_t length = GetBE16(payload.Data, 0);
        if (!payload.Holds(4, length)) return false;
        *text = TextToUtf8({payload.Data + 4, length}, false);
        return true;
    }
    case StringForm::kPlainText:
        *text = TextToUtf8(payload, false);
        return true;
    }
    return false;
}

}  // namespace

void CollectUserData(ByteSpan udta, const std::string &path, uint32_t trackId,
                     std::vector<TagDraft> *tags) {
    SpanAtoms children(udta);
    for (SpanAtom child; children.Next(&child);) {
        const StringRow *row = nullptr;
        for (const StringRow &candidate : kStringRows)
            if (std::memcmp(candidate.Name, child.Name, 4) == 0) row = &candidate;
        // Other QuickTime strings keep their own name.
        const bool quickTime = uint8_t(child.Name[0]) == 0xA9;
        if (row == nullptr && !quickTime) continue;
        TagDraft tag;
        if (!ReadString(child.Payload, row != nullptr ? row->Form : StringForm::kQuickTimeText, &tag.Value))
            continue;
        tag.OwnKey = NameStep(child.Name);
        tag.Key = row != nullptr ? row->Key : tag.OwnKey;
        tag.Type = MP4_TAG_TEXT;
        tag.TrackId = trackId;
        tag.Source = path + "/" + tag.OwnKey;
        tags->push_back(std::move(tag));
    }
}

void CollectHeaderTimes(MP4_local_file *file, const std::string &path, uint32_t trackId,
                        std::vector<TagDraft> *tags) {
    std::vector<uint8_t> atom;
    if (!ReadAtomPayload(file, path, &atom) || atom.size() < 12) return;
    const bool wide = atom[0] == 1;
    if (wide && atom.size() < 20) return;
    const uint64_t times[2] = {wide ? GetBE64(atom.data(), 4) : GetBE32(atom.data(), 4),
                               wide ? GetBE64(atom.data(), 12) : GetBE32(atom.data(), 8)};
    const char *keys[2] = {"creation_time", "modification_time"};
    const std::string name = path.substr(path.size() - 4);
    for (int i = 0; i < 2; ++i) {
        if (times[i] == 0) continue;
        TagDraft tag;
        tag.Key = keys[i];
        tag.OwnKey = name + "." + keys[i];
        tag.Type = MP4_TAG_TEXT;
        tag.TrackId = trackId;
        tag.Value = Iso8601From1904(times[i]);
        tag.Source = path;
        tags->push_back(std::move(tag));
    }
}
