// The tags of a "meta" atom: iTunes items ("ilst" children named by four
// characters, each value in a "data" atom; freeform "----" items named by
// "mean" and "name"), and QuickTime metadata by key (a "keys" atom lists
// the names, the "ilst" children are named by their 1-based index there).
#include <cstdio>
#include <cstring>

#include "meta/meta.h"
#include "mp4core.h"

namespace {

// The value types of a "data" atom (its 24-bit type field).
enum DataType : uint32_t {
    kImplicit = 0,
    kUtf8 = 1,
    kUtf16 = 2,
    kJpeg = 13,
    kPng = 14,
    kSignedInt = 21,
    kUnsignedInt = 22,
    kFloat32 = 23,
    kFloat64 = 24,
};

// How an item's value reads beside its data type.
enum class ItemForm : uint8_t { kByType, kNumberOfTotal, kGenreIndex };

struct ItemRow {
    char Name[5];
    const char *Key;
    ItemForm Form;
};

// The iTunes items of the common vocabulary.
constexpr ItemRow kItemRows[] = {
    {"\xA9nam", "title", ItemForm::kByType},     {"\xA9" "ART", "artist", ItemForm::kByType},
    {"aART", "album_artist", ItemForm::kByType}, {"\xA9" "alb", "album", ItemForm::kByType},
    {"\xA9" "day", "date", ItemForm::kByType},   {"\xA9gen", "genre", ItemForm::kByType},
    {"gnre", "genre", ItemForm::kGenreIndex},    {"\xA9" "cmt", "comment", ItemForm::kByType},
    {"\xA9wrt", "composer", ItemForm::kByType},  {"cprt", "copyright", ItemForm::kByType},
    {"desc", "description", ItemForm::kByType},  {"\xA9too", "encoder", ItemForm::kByType},
    {"trkn", "track", ItemForm::kNumberOfTotal}, {"disk", "disc", ItemForm::kNumberOfTotal},
    {"cpil", "compilation", ItemForm::kByType},  {"covr", "cover", ItemForm::kByType},
};

// QuickTime keys of the common vocabulary.
struct KeyRow {
    const char *FileKey;
    const char *Key;
};
constexpr KeyRow kKeyRows[] = {
    {"com.apple.quicktime.make", "make"},
    {"com.apple.quicktime.model", "model"},
    {"com.apple.quicktime.software", "software"},
    {"com.apple.quicktime.location.ISO6709", "location"},
    {"com.apple.quicktime.creationdate", "creation_time"},
    {"com.apple.quicktime.title", "title"},
    {"com.apple.quicktime.artist", "artist"},
    {"com.apple.quicktime.album", "album"},
    {"com.apple.quicktime.comment", "comment"},
    {"com.apple.quicktime.description", "description"},
    {"com.apple.quicktime.copyright", "copyright"},
    {"com.apple.quicktime.genre", "genre"},
};

// The genres of an ID3v1 genre number, which "gnre" holds plus one.
constexpr const char *kGenres[] = {
    "Blues", "Classic Rock", "Country", "Dance", "Disco", "Funk", "Grunge", "Hip-Hop", "Jazz",
    "Metal", "New Age", "Oldies", "Other", "Pop", "R&B", "Rap", "Reggae", "Rock", "Techno",
    "Industrial", "Alternative", "Ska", "Death Metal", "Pranks", "Soundtrack", "Euro-Techno",
    "Ambient", "Trip-Hop", "Vocal", "Jazz+Funk", "Fusion", "Trance", "Classical", "Instrumental",
    "Acid", "House", "Game", "Sound Clip", "Gospel", "Noise", "AlternRock", "Bass", "Soul", "Punk",
    "Space", "Meditative", "Instrumental Pop", "Instrumental Rock", "Ethnic", "Gothic", "Darkwave",
    "Techno-Industrial", "Electronic", "Pop-Folk", "Eurodance", "Dream", "Southern Rock", "Comedy",
    "Cult", "Gangsta", "Top 40", "Christian Rap", "Pop/Funk", "Jungle", "Native American",
    "Cabaret", "New Wave", "Psychadelic", "Rave", "Showtunes", "Trailer", "Lo-Fi", "Tribal",
    "Acid Punk", "Acid Jazz", "Polka", "Retro", "Musical", "Rock & Roll", "Hard Rock",
};

const ItemRow *FindItemRow(const char name[4]) {
    for (const ItemRow &row : kItemRows)
        if (std::memcmp(row.Name, name, 4) == 0) return &row;
    return nullptr;
}

const char *CommonKeyOf(const std::string &fileKey) {
    for (const KeyRow &row : kKeyRows)
        if (fileKey == row.FileKey) return row.Key;
    return nullptr;
}

int64_t BigEndianInteger(ByteSpan bytes, bool isSigned) {
    uint64_t value = 0;
    for (size_t i = 0; i < bytes.Size; ++i) value = value << 8 | bytes.Data[i];
    if (isSigned && bytes.Size < 8 && (bytes.Data[0] & 0x80) != 0) value |= ~uint64_t(0) << (8 * bytes.Size);
    return int64_t(value);
}

const char *ImageMime(uint32_t type, ByteSpan bytes) {
    if (type == kJpeg || (bytes.Size >= 3 && std::memcmp(bytes.Data, "\xFF\xD8\xFF", 3) == 0))
        return "image/jpeg";
    if (type == kPng || (bytes.Size >= 8 && std::memcmp(bytes.Data, "\x89PNG\r\n\x1A\n", 8) == 0))
        return "image/png";
    return nullptr;
}

// The value of one "data" payload (type, locale, value) into a draft;
// false when it gives none.
bool ReadValue(ByteSpan data, ItemForm form, bool isCover, TagDraft *tag) {
    if (!data.Holds(0, 8)) return false;
    const uint32_t type = GetBE32(data.Data, 0) & 0xFFFFFF;
    const ByteSpan value = data.From(8);
    if (form == ItemForm::kNumberOfTotal) {
        // 2 bytes of padding, the number and the count (16 bits each).
        if (value.Size < 6) return false;
        tag->Type = MP4_TAG_INTEGER;
        tag->Integer = GetBE16(value.Data, 2);
        tag->Total = GetBE16(value.Data, 4);
        return true;
    }
    if (form == ItemForm::kGenreIndex) {
        if (value.Size != 2) return false;
        const uint32_t number = GetBE16(value.Data, 0);
        tag->Type = MP4_TAG_TEXT;
        if (number >= 1 && number <= sizeof kGenres / sizeof kGenres[0])
            tag->Value = kGenres[number - 1];
        else
            tag->Value = Decimal(number);
        return true;
    }
    if (isCover || type == kJpeg || type == kPng) {
        tag->Mime = ImageMime(type, value);
        tag->Type = tag->Mime != nullptr ? MP4_TAG_IMAGE : MP4_TAG_BINARY;
        tag->Value.assign(reinterpret_cast<const char *>(value.Data), value.Size);
        return true;
    }
    const bool integral = type == kSignedInt || type == kUnsignedInt ||
                          (type == kImplicit && tag->OwnKey == "cpil");
    if (integral && value.Size >= 1 && value.Size <= 8 && (value.Size & (value.Size - 1)) == 0) {
        tag->Type = MP4_TAG_INTEGER;
        tag->Integer = BigEndianInteger(value, type != kUnsignedInt);
        return true;
    }
    if (type == kUtf8 || type == kUtf16) {
        tag->Type = MP4_TAG_TEXT;
        tag->Value = TextToUtf8(value, type == kUtf16);
        return true;
    }
    if ((type == kFloat32 && value.Size == 4) || (type == kFloat64 && value.Size == 8)) {
        double number = 0;
        if (type == kFloat32) {
            const uint32_t bits = GetBE32(value.Data, 0);
            float single;
            std::memcpy(&single, &bits, 4);
            number = single;
        } else {
            const uint64_t bits = GetBE64(value.Data, 0);
            std::memcpy(&number, &bits, 8);
        }
        char text[40];
        std::snprintf(text, sizeof text, "%.17g", number);
        tag->Type = MP4_TAG_TEXT;
        tag->Value = text;
        return true;
    }
    tag->Type = MP4_TAG_BINARY;
    tag->Value.assign(reinterpret_cast<const char *>(value.Data), value.Size);
    return true;
}

// Every "data" child of an item, one tag each.
void ReadItemValues(ByteSpan item, const TagDraft &base, ItemForm form, bool isCover,
                    std::vector<TagDraft> *tags) {
    SpanAtoms children(item);
    for (SpanAtom child; children.Next(&child);) {
        if (std::memcmp(child.Name, "data", 4) != 0) continue;
        TagDraft tag = base;
        if (ReadValue(child.Payload, form, isCover, &tag)) tags->push_back(std::move(tag));
    }
}

// A "mean" or "name" payload: version and flags, then the text.
std::string FreeformPart(ByteSpan payload) {
    return payload.Size >= 4 ? TextToUtf8(payload.From(4), false) : std::string();
}

// Keyed items may name one key many times: a longer key is not taken, so
// that each tag costs a bounded copy.
constexpr uint32_t kMaxKeyBytes = 128;

// The names a "keys" payload lists (version and flags, count, then each
// key's size, namespace and name), in order; a key that does not fit ends
// the list, a key above kMaxKeyBytes stands as an empty name.
std::vector<ByteSpan> ReadKeys(ByteSpan keys) {
    std::vector<ByteSpan> names;
    if (keys.Size < 8) return names;
    const uint32_t count = GetBE32(keys.Data, 4);
    size_t at = 8;
    for (uint32_t i = 0; i < count && keys.Holds(at, 8); ++i) {
        const uint32_t size = GetBE32(keys.Data, at);
        if (size < 8 || !keys.Holds(at, size)) break;
        names.push_back(size - 8 <= kMaxKeyBytes ? ByteSpan{keys.Data + at + 8, size - 8} : ByteSpan{});
        at += size;
    }
    return names;
}

}  // namespace

void CollectItemList(ByteSpan meta, const std::string &metaPath, uint32_t trackId,
                     std::vector<TagDraft> *tags) {
    // A "meta" of ISO form is a full atom; QuickTime's has "hdlr" at once.
    const bool plain = meta.Holds(4, 4) && std::memcmp(meta.Data + 4, "hdlr", 4) == 0;
    ByteSpan ilst;
    std::vector<ByteSpan> keys;
    bool haveKeys = false;
    SpanAtoms children(meta.From(plain ? 0 : 4));
    for (SpanAtom child; children.Next(&child);) {
        if (std::memcmp(child.Name, "ilst", 4) == 0 && ilst.Data == nullptr) ilst = child.Payload;
        if (std::memcmp(child.Name, "keys", 4) == 0 && !haveKeys) {
            keys = ReadKeys(child.Payload);
            haveKeys = true;
        }
    }
    if (ilst.Data == nullptr) return;
    const std::string ilstPath = metaPath + "/ilst/";
    SpanAtoms items(ilst);
    uint32_t position = 0;
    for (SpanAtom item; items.Next(&item);) {
        ++position;
        TagDraft base;
        base.TrackId = trackId;
        base.Source = ilstPath + NameStep(item.Name);
        if (haveKeys) {
            // An item named by its index in "keys"; its path by position,
            // as the index is no printable name.
            const uint32_t index = GetBE32(reinterpret_cast<const uint8_t *>(item.Name), 0);
            if (index == 0 || index > keys.size() || keys[index - 1].Size == 0) continue;
            base.OwnKey.assign(reinterpret_cast<const char *>(keys[index - 1].Data), keys[index - 1].Size);
            base.Source = ilstPath + "*[" + Decimal(position) + "]";
            const char *common = CommonKeyOf(base.OwnKey);
            base.Key = common != nullptr ? common : base.OwnKey;
            const size_t first = tags->size();
            ReadItemValues(item.Payload, base, ItemForm::kByType, false, tags);
            // A date of the phone's local time is given in UTC.
            for (size_t i = first; i < tags->size(); ++i) {
                TagDraft &tag = (*tags)[i];
                if (tag.Key != "creation_time") continue;
                std::string utc;
                if (tag.Type == MP4_TAG_TEXT && NormaliseDate(tag.Value, &utc))
                    tag.Value = utc;
                else
                    tag.Key = tag.OwnKey;
            }
            continue;
        }
        if (std::memcmp(item.Name, "----", 4) == 0) {
            std::string mean, name;
            SpanAtoms parts(item.Payload);
            for (SpanAtom part; parts.Next(&part);) {
                if (std::memcmp(part.Name, "mean", 4) == 0) mean = FreeformPart(part.Payload);
                if (std::memcmp(part.Name, "name", 4) == 0) name = FreeformPart(part.Payload);
            }
            if (name.empty()) continue;
            base.Key = base.OwnKey = mean + ":" + name;
            ReadItemValues(item.Payload, base, ItemForm::kByType, false, tags);
            continue;
        }
        const ItemRow *row = FindItemRow(item.Name);
        base.OwnKey = NameStep(item.Name);
        base.Key = row != nullptr ? row->Key : base.OwnKey;
        ReadItemValues(item.Payload, base, row != nullptr ? row->Form : ItemForm::kByType,
                       row != nullptr && std::strcmp(row->Key, "cover") == 0, tags);
    }
}
