// The tags and chapters of a modern write handle: the checks and copies of
// MP4SetMetadata and MP4SetChapters, and their atoms in "moov". Each key
// of the common vocabulary has one row saying where it goes; a key beyond
// it goes by its form: "mean:name" to a freeform iTunes item ("----"), a
// reverse-DNS name to QuickTime metadata by key ("mdta"), four characters
// to an iTunes item of that name.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"
#include "writer/metadata.h"
#include "writer/progressive.h"

namespace {

// The forms a vocabulary key's value takes.
enum class Form : uint8_t {
    Text,   // UTF-8
    Time,   // UTF-8, ISO 8601: also the "mvhd" time
    Track,  // number and count, 16 bits each ("trkn")
    Disc,   // the same in the shorter "disk" layout
    Flag,   // 0 or 1
    Image,  // "covr": JPEG or PNG
};

struct KeyRow {
    const char *Key;
    const char *Item;          // iTunes item in "moov/udta/meta/ilst", or null
    const char *UserData;      // "moov/udta" string atom, or null
    const char *QuickTimeKey;  // "moov/meta" key, or null
    Form Kind;
};

constexpr KeyRow kKeys[] = {
    {"title", "\xA9nam", nullptr, nullptr, Form::Text},
    {"artist", "\xA9" "ART", nullptr, nullptr, Form::Text},
    {"album_artist", "aART", nullptr, nullptr, Form::Text},
    {"album", "\xA9" "alb", nullptr, nullptr, Form::Text},
    {"date", "\xA9" "day", nullptr, nullptr, Form::Text},
    {"genre", "\xA9gen", nullptr, nullptr, Form::Text},
    {"comment", "\xA9" "cmt", nullptr, nullptr, Form::Text},
    {"composer", "\xA9wrt", nullptr, nullptr, Form::Text},
    {"copyright", "cprt", nullptr, nullptr, Form::Text},
    {"description", "desc", nullptr, nullptr, Form::Text},
    {"encoder", "\xA9too", nullptr, nullptr, Form::Text},
    {"track", "trkn", nullptr, nullptr, Form::Track},
    {"disc", "disk", nullptr, nullptr, Form::Disc},
    {"compilation", "cpil", nullptr, nullptr, Form::Flag},
    {"cover", "covr", nullptr, nullptr, Form::Image},
    {"location", nullptr, "\xA9xyz", "com.apple.quicktime.location.ISO6709", Form::Text},
    {"make", nullptr, nullptr, "com.apple.quicktime.make", Form::Text},
    {"model", nullptr, nullptr, "com.apple.quicktime.model", Form::Text},
    {"software", nullptr, nullptr, "com.apple.quicktime.software", Form::Text},
    {"creation_time", nullptr, nullptr, "com.apple.quicktime.creationdate", Form::Time},
    {"modification_time", nullptr, nullptr, nullptr, Form::Time},
};

// Type codes of a "data" atom.
constexpr uint32_t kDataBinary = 0;
constexpr uint32_t kDataUtf8 = 1;
constexpr uint32_t kDataJpeg = 13;
constexpr uint32_t kDataPng = 14;
constexpr uint32_t kDataInteger = 21;
// The language of a "udta" string: "und" as QuickTime packs it.
constexpr uint16_t kUndetermined = 0x55C4;
// "chpl" counts its chapters in one byte and their titles in one byte
// each, in units of 100 ns.
constexpr uint32_t kChplTimescale = 10000000;
constexpr size_t kChplMaxChapters = 255;
constexpr size_t kChplMaxTitle = 255;
// The "text" sample description of the chapter track behind the entry's
// head: no display flags, justification 1, colours, box and font all 0,
// an empty font name.
constexpr uint8_t kTextDescription[44] = {0, 0, 0, 0, 0, 0, 0, 1};
// The atom a chapter sample ends with: its text is UTF-8.
constexpr uint8_t kUtf8Encoding[12] = {0, 0, 0, 12, 'e', 'n', 'c', 'd', 0, 0, 1, 0};
// The "tkhd" tail of the chapter track from its layer on, in words:
// layer and group, volume, the identity matrix, no picture size.
constexpr uint32_t kIdentityTail[kHeaderTailBytes / 4] = {0, 0, 0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000, 0, 0};

const KeyRow *FindKey(const char *key) {
    for (const KeyRow &row : kKeys)
        if (std::strcmp(row.Key, key) == 0) return &row;
    return nullptr;
}

// A four-character item name from a key: four bytes, or the copyright
// sign in UTF-8 and three more (the byte 0xA9 in the file).
bool ItemName(const char *key, char name[4]) {
    const size_t length = std::strlen(key);
    if (length == 4) {
        std::memcpy(name, key, 4);
        return true;
    }
    if (length == 5 && uint8_t(key[0]) == 0xC2 && uint8_t(key[1]) == 0xA9) {
        name[0] = char(0xA9);
        std::memcpy(name + 1, key + 2, 3);
        return true;
    }
    return false;
}

bool IsFreeform(const char *key) {
    const char *colon = std::strrchr(key, ':');
    return colon != nullptr && colon != key && colon[1] != 0;
}

bool IsQuickTimeKey(const char *key) { return std::strchr(key, '.') != nullptr && std::strchr(key, ':') == nullptr; }

bool ImageMime(const char *mime, uint32_t *type) {
    if (mime == nullptr) return false;
    if (std::strcmp(mime, "image/jpeg") == 0) return *type = kDataJpeg, true;
    if (std::strcmp(mime, "image/png") == 0) return *type = kDataPng, true;
    return false;
}

bool ZeroWords(const uint32_t *words, size_t count) {
    for (size_t i = 0; i < count; ++i)
        if (words[i] != 0) return false;
    return true;
}

// Whether a tag can be written where its key says.
bool TagFits(const MP4Tag &tag) {
    if (tag.Key == nullptr || tag.Key[0] == 0 || std::strlen(tag.Key) > kMaxKeyBytes) return false;
    if (tag.Pad != 0 || tag.TrackId != 0 || !ZeroWords(tag.Reserved, 4)) return false;
    if (tag.Type < MP4_TAG_TEXT || tag.Type > MP4_TAG_IMAGE) return false;
    if (tag.Type != MP4_TAG_INTEGER && ((tag.Value == nullptr && tag.Size != 0) || tag.Size > kMaxTagValueBytes))
        return false;
    uint32_t code = 0;
    if (tag.Type == MP4_TAG_IMAGE && !ImageMime(tag.Mime, &code)) return false;
    const KeyRow *row = FindKey(tag.Key);
    if (row == nullptr) {
        char name[4];
        return IsFreeform(tag.Key) || IsQuickTimeKey(tag.Key) || ItemName(tag.Key, name);
    }
    uint64_t seconds = 0;
    switch (row->Kind) {
    case Form::Text: return tag.Type == MP4_TAG_TEXT;
    case Form::Time:
        return tag.Type == MP4_TAG_TEXT && ParseIsoTime(reinterpret_cast<const char *>(tag.Value), tag.Size, &seconds);
    case Form::Track:
    case Form::Disc:
        return tag.Type == MP4_TAG_INTEGER && tag.Integer >= 0 && tag.Integer <= 0xFFFF && tag.Total >= 0 &&
               tag.Total <= 0xFFFF;
    case Form::Flag: return tag.Type == MP4_TAG_INTEGER && (tag.Integer == 0 || tag.Integer == 1);
    case Form::Image: return tag.Type == MP4_TAG_IMAGE;
    }
    return false;
}

// Room for a string of `size` bytes and its terminator in a copy block.
uint64_t Room(size_t size) { return uint64_t(size) + 1; }

char *CopyString(char **cursor, const void *bytes, size_t size) {
    char *copy = *cursor;
    if (size != 0) std::memcpy(copy, bytes, size);
    copy[size] = 0;
    *cursor += size + 1;
    return copy;
}

// ---- Atoms ------------------------------------------------------------

// The smallest big-endian form of a signed integer: 1, 2, 4 or 8 bytes.
void PutInteger(BoxBuffer *out, int64_t value) {
    if (value >= INT8_MIN && value <= INT8_MAX) return Put8(out, uint8_t(value));
    if (value >= INT16_MIN && value <= INT16_MAX) return Put16(out, uint16_t(value));
    if (value >= INT32_MIN && value <= INT32_MAX) return Put32(out, uint32_t(value));
    Put64(out, uint64_t(value));
}

// A "data" atom: type code, locale 0, the value.
void PutData(BoxBuffer *out, const MP4Tag &tag, Form kind) {
    const size_t data = OpenBox(out, "data");
    uint32_t code = kDataBinary;
    if (tag.Type == MP4_TAG_TEXT) code = kDataUtf8;
    if (tag.Type == MP4_TAG_INTEGER && kind != Form::Track && kind != Form::Disc) code = kDataInteger;
    if (tag.Type == MP4_TAG_IMAGE) ImageMime(tag.Mime, &code);
    Put32(out, code);
    Put32(out, 0);
    if (kind == Form::Track || kind == Form::Disc) {
        // Two reserved bytes, number and count; "trkn" two more.
        Put16(out, 0);
        Put16(out, uint16_t(tag.Integer));
        Put16(out, uint16_t(tag.Total));
        if (kind == Form::Track) Put16(out, 0);
    } else if (kind == Form::Flag) {
        Put8(out, uint8_t(tag.Integer));
    } else if (tag.Type == MP4_TAG_INTEGER) {
        PutInteger(out, tag.Integer);
    } else {
        PutBytes(out, tag.Value, tag.Size);
    }
    CloseBox(out, data);
}

void PutFullString(BoxBuffer *out, const char *name, const char *text, size_t size) {
    const size_t box = OpenFullBox(out, name, 0, 0);
    PutBytes(out, text, size);
    CloseBox(out, box);
}

void PutHandlerOf(BoxBuffer *out, const char *type, const char *maker) {
    const size_t box = OpenFullBox(out, "hdlr", 0, 0);
    Put32(out, 0);
    PutName(out, type);
    if (maker != nullptr) PutName(out, maker); else Put32(out, 0);
    PutZeros(out, 8);
    Put8(out, 0);  // an empty name
    CloseBox(out, box);
}

// The iTunes item of a tag, if it has one.
bool PutItem(BoxBuffer *out, const MP4Tag &tag) {
    const KeyRow *row = FindKey(tag.Key);
    char name[4];
    if (row != nullptr) {
        if (row->Item == nullptr) return false;
        const size_t item = OpenBox(out, row->Item);
        PutData(out, tag, row->Kind);
        CloseBox(out, item);
        return true;
    }
    if (IsFreeform(tag.Key)) {
        const char *colon = std::strrchr(tag.Key, ':');
        const size_t item = OpenBox(out, "----");
        PutFullString(out, "mean", tag.Key, size_t(colon - tag.Key));
        PutFullString(out, "name", colon + 1, std::strlen(colon + 1));
        PutData(out, tag, Form::Text);
        CloseBox(out, item);
        return true;
    }
    if (IsQuickTimeKey(tag.Key) || !ItemName(tag.Key, name)) return false;
    const size_t item = OpenBox(out, name);
    PutData(out, tag, Form::Text);
    CloseBox(out, item);
    return true;
}

const char *QuickTimeKeyOf(const MP4Tag &tag) {
    const KeyRow *row = FindKey(tag.Key);
    if (row != nullptr) return row->QuickTimeKey;
    return IsQuickTimeKey(tag.Key) ? tag.Key : nullptr;
}

// The "\xA9xyz" string atoms of "udta": length, language, text.
void PutUserDataStrings(BoxBuffer *out, const WriterMetadata &meta) {
    for (uint32_t i = 0; i < meta.TagCount; ++i) {
        const KeyRow *row = FindKey(meta.Tags[i].Key);
        if (row == nullptr || row->UserData == nullptr || meta.Tags[i].Size > 0xFFFF) continue;
        const size_t box = OpenBox(out, row->UserData);
        Put16(out, uint16_t(meta.Tags[i].Size));
        Put16(out, kUndetermined);
        PutBytes(out, meta.Tags[i].Value, meta.Tags[i].Size);
        CloseBox(out, box);
    }
}

// The bytes of a title cut to `limit` at a character boundary.
size_t TitleBytes(const char *title, size_t limit) {
    size_t size = std::strlen(title);
    if (size <= limit) return size;
    size = limit;
    while (size > 0 && (uint8_t(title[size]) & 0xC0) == 0x80) --size;
    return size;
}

uint64_t Rescale(uint64_t value, uint32_t from, uint32_t to) {
    return uint64_t((unsigned __int128)value * to / from);
}

// Nero chapters: version 1, a reserved word, a count byte, then each
// start (100 ns) and title (a length byte). The first 255 chapters.
void PutChpl(BoxBuffer *out, const WriterMetadata &meta) {
    const size_t count = meta.ChapterCount < kChplMaxChapters ? meta.ChapterCount : kChplMaxChapters;
    const size_t box = OpenFullBox(out, "chpl", 1, 0);
    Put32(out, 0);
    Put8(out, uint8_t(count));
    for (size_t i = 0; i < count; ++i) {
        const MP4Chapter &chapter = meta.Chapters[i];
        Put64(out, Rescale(chapter.Start, chapter.Timescale, kChplTimescale));
        const size_t size = TitleBytes(chapter.Title, kChplMaxTitle);
        Put8(out, uint8_t(size));
        PutBytes(out, chapter.Title, size);
    }
    CloseBox(out, box);
}

// Whether tag i is the first with its QuickTime key.
bool FirstOfKey(const WriterMetadata &meta, uint32_t i) {
    const char *key = QuickTimeKeyOf(meta.Tags[i]);
    if (key == nullptr) return false;
    for (uint32_t k = 0; k < i; ++k) {
        const char *earlier = QuickTimeKeyOf(meta.Tags[k]);
        if (earlier != nullptr && std::strcmp(earlier, key) == 0) return false;
    }
    return true;
}

// "moov/meta" as phones write it: a plain "meta" (no version), "hdlr"
// "mdta", "keys" with each key once, and "ilst" items named by the key's
// index from 1.
void PutQuickTimeMetadata(BoxBuffer *out, const WriterMetadata &meta) {
    uint32_t keyCount = 0;
    for (uint32_t i = 0; i < meta.TagCount; ++i) keyCount += FirstOfKey(meta, i) ? 1 : 0;
    if (keyCount == 0) return;
    const size_t box = OpenBox(out, "meta");
    PutHandlerOf(out, "mdta", nullptr);
    const size_t keysBox = OpenFullBox(out, "keys", 0, 0);
    Put32(out, keyCount);
    for (uint32_t i = 0; i < meta.TagCount; ++i) {
        if (!FirstOfKey(meta, i)) continue;
        const char *key = QuickTimeKeyOf(meta.Tags[i]);
        Put32(out, uint32_t(std::strlen(key) + 8));
        PutName(out, "mdta");
        PutBytes(out, key, std::strlen(key));
    }
    CloseBox(out, keysBox);
    // One item a key, from the first tag that names it, named by the
    // key's index from 1 (filled in behind the head).
    const size_t ilst = OpenBox(out, "ilst");
    uint32_t index = 0;
    for (uint32_t i = 0; i < meta.TagCount; ++i) {
        if (!FirstOfKey(meta, i)) continue;
        const size_t item = OpenBox(out, "\0\0\0\0");
        PutData(out, meta.Tags[i], Form::Text);
        CloseBox(out, item);
        if (!out->Failed) PutBE32(out->Bytes, item + 4, ++index);
    }
    CloseBox(out, ilst);
    CloseBox(out, box);
}

}  // namespace

bool ParseIsoTime(const char *text, size_t size, uint64_t *seconds) {
    if (text == nullptr) return false;
    char buffer[64];
    if (size >= sizeof buffer || std::memchr(text, 0, size) != nullptr) return false;
    std::memcpy(buffer, text, size);
    buffer[size] = 0;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, used = 0;
    if (std::sscanf(buffer, "%4d-%2d-%2d%n", &year, &month, &day, &used) != 3 || used != 10) return false;
    const char *rest = buffer + used;
    if (*rest == 'T' || *rest == ' ') {
        int more = 0;
        if (std::sscanf(rest + 1, "%2d:%2d:%2d%n", &hour, &minute, &second, &more) != 3 || more != 8) return false;
        rest += 1 + more;
        if (*rest == '.')
            for (++rest; *rest >= '0' && *rest <= '9'; ++rest) {
            }
    }
    int64_t offset = 0;
    if (*rest == '+' || *rest == '-') {
        int oh = 0, om = 0, more = 0;
        if ((std::sscanf(rest + 1, "%2d:%2d%n", &oh, &om, &more) != 2 || more != 5) &&
            (std::sscanf(rest + 1, "%2d%2d%n", &oh, &om, &more) != 2 || more != 4))
            return false;
        if (oh > 23 || om > 59) return false;
        offset = (*rest == '-' ? -1 : 1) * (oh * 3600 + om * 60);
        rest += 1 + more;
    } else if (*rest == 'Z') {
        ++rest;
    }
    if (*rest != 0 || year < 1904 || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 ||
        minute > 59 || second > 60)
        return false;
    // Days from 1904-01-01 by the civil calendar (years from March).
    const int y = year - (month <= 2);
    const int era = y / 400, yoe = y - era * 400;
    const int doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int64_t days = int64_t(era) * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;  // from 1970
    const int64_t total = (days + 24107) * 86400 + hour * 3600 + minute * 60 + second - offset;
    if (total < 0) return false;
    *seconds = uint64_t(total);
    return true;
}

int32_t ReplaceTags(WriterMetadata *meta, const MP4Tag *tags, uint32_t count) {
    if (count > kMaxTags) return kSetMetaBadRecord;
    uint64_t bytes = uint64_t(count) * sizeof(MP4Tag);
    for (uint32_t i = 0; i < count; ++i) {
        if (!TagFits(tags[i])) return kSetMetaBadRecord;
        bytes += Room(std::strlen(tags[i].Key)) + Room(tags[i].Type == MP4_TAG_INTEGER ? 0 : tags[i].Size) +
                 (tags[i].Mime != nullptr ? Room(std::strlen(tags[i].Mime)) : 0);
    }
    MP4Tag *copy = nullptr;
    if (count > 0) {
        copy = static_cast<MP4Tag *>(std::malloc(size_t(bytes)));
        if (copy == nullptr) return kSetMetaNoMemory;
        char *cursor = reinterpret_cast<char *>(copy + count);
        for (uint32_t i = 0; i < count; ++i) {
            MP4Tag &tag = copy[i];
            tag = tags[i];
            tag.Source = nullptr;
            tag.Key = CopyString(&cursor, tags[i].Key, std::strlen(tags[i].Key));
            if (tag.Type == MP4_TAG_INTEGER) {
                tag.Value = nullptr;
                tag.Size = 0;
            } else {
                tag.Value = reinterpret_cast<uint8_t *>(CopyString(&cursor, tags[i].Value, tags[i].Size));
            }
            if (tags[i].Mime != nullptr) tag.Mime = CopyString(&cursor, tags[i].Mime, std::strlen(tags[i].Mime));
        }
    }
    std::free(meta->Tags);
    meta->Tags = copy;
    meta->TagCount = count;
    meta->Created = meta->Modified = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const MP4Tag &tag = copy[i];
        const char *text = reinterpret_cast<const char *>(tag.Value);
        if (std::strcmp(tag.Key, "creation_time") == 0) ParseIsoTime(text, tag.Size, &meta->Created);
        if (std::strcmp(tag.Key, "modification_time") == 0) ParseIsoTime(text, tag.Size, &meta->Modified);
    }
    return 1;
}

int32_t ReplaceChapters(WriterMetadata *meta, const MP4Chapter *chapters, uint32_t count) {
    if (count > kMaxChapters) return kSetMetaBadRecord;
    uint64_t bytes = uint64_t(count) * sizeof(MP4Chapter);
    for (uint32_t i = 0; i < count; ++i) {
        const MP4Chapter &c = chapters[i];
        // The chapter track counts milliseconds in 32 bits.
        if (c.Title == nullptr || c.Timescale == 0 || c.End < c.Start || c.Pad != 0 || !ZeroWords(c.Reserved, 2) ||
            (unsigned __int128)c.End * kChapterTimescale / c.Timescale > UINT32_MAX)
            return kSetMetaBadRecord;
        // Starts in order, compared as instants.
        if (i > 0 && (unsigned __int128)c.Start * chapters[i - 1].Timescale <
                         (unsigned __int128)chapters[i - 1].Start * c.Timescale)
            return kSetMetaBadRecord;
        const size_t size = std::strlen(c.Title);
        if (size > kMaxTitleBytes) return kSetMetaBadRecord;
        bytes += Room(size);
    }
    MP4Chapter *copy = nullptr;
    if (count > 0) {
        copy = static_cast<MP4Chapter *>(std::malloc(size_t(bytes)));
        if (copy == nullptr) return kSetMetaNoMemory;
        char *cursor = reinterpret_cast<char *>(copy + count);
        for (uint32_t i = 0; i < count; ++i) {
            copy[i] = chapters[i];
            copy[i].Title = CopyString(&cursor, chapters[i].Title, std::strlen(chapters[i].Title));
        }
    }
    std::free(meta->Chapters);
    meta->Chapters = copy;
    meta->ChapterCount = count;
    return 1;
}

void ReleaseWriterMetadata(WriterMetadata *meta) {
    std::free(meta->Tags);
    std::free(meta->Chapters);
    *meta = WriterMetadata{};
}

void PutMovieMetadata(const WriterMetadata &meta, BoxBuffer *out) {
    BoxBuffer items{};
    for (uint32_t i = 0; i < meta.TagCount; ++i) PutItem(&items, meta.Tags[i]);
    BoxBuffer strings{};
    PutUserDataStrings(&strings, meta);
    if (items.Size > 0 || strings.Size > 0 || meta.ChapterCount > 0) {
        const size_t udta = OpenBox(out, "udta");
        PutBytes(out, strings.Bytes, strings.Size);
        if (meta.ChapterCount > 0) PutChpl(out, meta);
        if (items.Size > 0) {
            const size_t box = OpenFullBox(out, "meta", 0, 0);
            PutHandlerOf(out, "mdir", "appl");
            const size_t ilst = OpenBox(out, "ilst");
            PutBytes(out, items.Bytes, items.Size);
            CloseBox(out, ilst);
            CloseBox(out, box);
        }
        CloseBox(out, udta);
    }
    if (items.Failed || strings.Failed) out->Failed = true;
    ReleaseBoxBuffer(&items);
    ReleaseBoxBuffer(&strings);
    PutQuickTimeMetadata(out, meta);
}

namespace {

// The first video or audio track, which names the chapter track; null
// without one (or without chapters, or without room for one more track).
ModernTrack *ChapteredTrack(ProgressiveWriter *writer) {
    if (writer->Metadata.ChapterCount == 0 || writer->TrackCount >= kMaxModernTracks) return nullptr;
    for (size_t t = 0; t < writer->TrackCount; ++t)
        if (writer->Tracks[t].TrackType == MP4_TRACK_VIDEO || writer->Tracks[t].TrackType == MP4_TRACK_AUDIO)
            return &writer->Tracks[t];
    return nullptr;
}

// The chapter track's description: a QuickTime "text" entry, shown
// nowhere (its flags say disabled, not in the movie).
bool DescribeChapterTrack(ModernTrack *track) {
    MP4TrackSpec trackSpec{};
    trackSpec.Timescale = kChapterTimescale;
    std::memcpy(trackSpec.Handler, "text", 4);
    std::memcpy(trackSpec.Format, "text", 4);
    trackSpec.Config = kTextDescription;
    trackSpec.ConfigSize = sizeof kTextDescription;
    if (BuildSampleEntry(trackSpec, track) != 1) return false;
    track->CopiedHeader = 1;
    track->HeaderFlags = 0;
    for (size_t w = 0; w < kHeaderTailBytes / 4; ++w) PutBE32(track->HeaderTail, w * 4, kIdentityTail[w]);
    return true;
}

// The most bytes of one chapter sample.
constexpr size_t kChapterSampleRoom = 2 + 0xFFFF + sizeof kUtf8Encoding;

// Chapter i's sample (a 16-bit length, the title, the "encd" atom) into
// `sample`, and its times. The track starts at 0: the first chapter is
// taken back to there.
MP4WriteInfo ChapterSample(const WriterMetadata &meta, uint32_t i, uint8_t *sample) {
    const MP4Chapter &chapter = meta.Chapters[i];
    const size_t size = TitleBytes(chapter.Title, 0xFFFF);
    PutBE16(sample, 0, uint16_t(size));
    std::memcpy(sample + 2, chapter.Title, size);
    std::memcpy(sample + 2 + size, kUtf8Encoding, sizeof kUtf8Encoding);
    MP4WriteInfo info{};
    info.DecodeTime = i == 0 ? 0 : Rescale(chapter.Start, chapter.Timescale, kChapterTimescale);
    const uint64_t end = Rescale(chapter.End, chapter.Timescale, kChapterTimescale);
    info.Duration = uint32_t(end > info.DecodeTime ? end - info.DecodeTime : 1);
    info.Size = uint32_t(2 + size + sizeof kUtf8Encoding);
    info.Flags = MP4_SAMPLE_KEY;
    return info;
}

}  // namespace

bool AddChapterTrack(ProgressiveWriter *writer) {
    const WriterMetadata &meta = writer->Metadata;
    ModernTrack *media = ChapteredTrack(writer);
    if (media == nullptr) return true;
    const size_t mediaIndex = size_t(media - writer->Tracks);
    ModernTrack *track = NextProgressiveTrack(writer);
    if (track == nullptr || !DescribeChapterTrack(track)) {
        if (track != nullptr) ReleaseModernTrack(*track);
        writer->Failed = 1;
        return false;
    }
    const uint32_t id = track->TrackId;
    ++writer->TrackCount;
    writer->Tracks[mediaIndex].ChapterTrackId = id;
    uint8_t *sample = static_cast<uint8_t *>(std::malloc(kChapterSampleRoom));
    if (sample == nullptr) return writer->Failed = 1, false;
    bool ok = true;
    for (uint32_t i = 0; i < meta.ChapterCount && ok; ++i)
        ok = WriteProgressiveSample(writer, id, ChapterSample(meta, i, sample), sample) == 1;
    std::free(sample);
    return ok;
}

bool HoldChapterTrack(ProgressiveWriter *writer) {
    const WriterMetadata &meta = writer->Metadata;
    ModernTrack *media = ChapteredTrack(writer);
    ModernTrack &track = writer->ChapterTrack;
    if (media == nullptr || track.TrackId != 0) return true;
    track = ModernTrack{};
    bool ok = DescribeChapterTrack(&track) && GrowRecords(&track.Samples, &track.SampleCapacity, meta.ChapterCount) &&
              GrowRecords(&track.Chunks, &track.ChunkCapacity, 1);
    BoxBuffer bytes{};
    uint8_t *sample = static_cast<uint8_t *>(std::malloc(kChapterSampleRoom));
    ok = ok && sample != nullptr;
    uint64_t previous = 0;
    for (uint32_t i = 0; i < meta.ChapterCount && ok; ++i) {
        const MP4WriteInfo info = ChapterSample(meta, i, sample);
        PutBytes(&bytes, sample, info.Size);
        track.Samples[i] = {info.Size, uint32_t(info.DecodeTime - previous), 0, IndexedFlags(info)};
        track.LastDuration = info.Duration;
        previous = info.DecodeTime;
    }
    std::free(sample);
    if (!ok || bytes.Failed) {
        ReleaseBoxBuffer(&bytes);
        ReleaseModernTrack(track);
        track = ModernTrack{};
        return false;
    }
    track.SampleCount = meta.ChapterCount;
    track.Chunks[0] = {0, 0, meta.ChapterCount};
    track.ChunkCount = 1;
    track.ChunkBytes = bytes.Bytes;
    track.ChunkSize = bytes.Size;
    track.TrackId = uint32_t(writer->TrackCount + 1);
    media->ChapterTrackId = track.TrackId;
    return true;
}
