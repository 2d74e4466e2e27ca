// Metadata and chapters of a read handle: the tags of every place a file
// keeps them, and the chapter lists. What the other subsystems may use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "frame/frame.h"

// A run of bytes of an atom's payload, read once from the file; every
// field inside it is read through the bounds it gives.
struct ByteSpan {
    const uint8_t *Data = nullptr;
    size_t Size = 0;

    bool Holds(size_t at, size_t count) const { return at <= Size && count <= Size - at; }
    ByteSpan From(size_t at) const { return at <= Size ? ByteSpan{Data + at, Size - at} : ByteSpan{}; }
};

// One child atom inside a payload: its name and its payload.
struct SpanAtom {
    char Name[4];
    ByteSpan Payload;
};

// The child atoms of a payload one after the other. A size of 1 takes the
// 64-bit size behind the name, 0 reaches to the end of the payload; a size
// below its head or past the payload ends the walk (the rest is not read).
class SpanAtoms {
public:
    explicit SpanAtoms(ByteSpan span) : span_(span) {}
    bool Next(SpanAtom *atom);

private:
    ByteSpan span_;
    size_t at_ = 0;
};

// A tag being collected, before the list is packed into one block.
struct TagDraft {
    std::string Key;
    uint32_t Type = 0;  // MP4_TAG_*
    uint32_t TrackId = 0;
    std::string Value;  // text (UTF-8), or the bytes of a binary value
    int64_t Integer = 0;
    int64_t Total = 0;
    const char *Mime = nullptr;
    std::string Source;
    // The file's own key, where Key is one of the common vocabulary: the
    // tag keeps it when an earlier source took the common key.
    std::string OwnKey;
};

// An atom's payload by its MP4GetAtom path; false when there is none, it
// can't be read, or it is above 16 MiB (the limit of MP4GetAtom).
bool ReadAtomPayload(MP4_local_file *file, const std::string &path, std::vector<uint8_t> *payload);

// A number in decimal.
std::string Decimal(uint64_t number);

// A path step for a four-character name: the byte 0xA9 as the UTF-8
// copyright sign, as MP4GetAtom reads it.
std::string NameStep(const char name[4]);

// Text of the forms the files use, as UTF-8: UTF-16 (big-endian, or by its
// byte order mark) and UTF-8 (a byte order mark dropped); trailing NULs
// are cut.
std::string Utf16ToUtf8(ByteSpan bytes, bool littleEndian);
std::string TextToUtf8(ByteSpan bytes, bool utf16);
// A string behind which a NUL stands (or the span ends), in UTF-8 or in
// UTF-16 with its byte order mark; *used receives the bytes taken.
std::string TerminatedText(ByteSpan bytes, size_t *used);

// Seconds since 1904-01-01 as ISO 8601 UTC ("2024-05-01T08:00:00Z").
std::string Iso8601From1904(uint64_t seconds);
// A date as the files write it ("2024-05-01T10:00:00+0200", "...Z", with
// or without fractions and offset colon) as ISO 8601 UTC; false when it is
// not one.
bool NormaliseDate(const std::string &text, std::string *utc);

// The collectors, each adding its source's tags in the file's order.
// The items of a "meta" payload (item_lists.cpp).
void CollectItemList(ByteSpan meta, const std::string &metaPath, uint32_t trackId,
                     std::vector<TagDraft> *tags);
// The strings of a "udta" payload, its "meta" left out (user_data.cpp).
void CollectUserData(ByteSpan udta, const std::string &path, uint32_t trackId,
                     std::vector<TagDraft> *tags);
// The creation and modification times of the full atom at `path`
// ("moov/mvhd", a track's "tkhd" or "mdhd"), unless they are 0.
void CollectHeaderTimes(MP4_local_file *file, const std::string &path, uint32_t trackId,
                        std::vector<TagDraft> *tags);

// The common key of a tag goes to the first source that gives it (for the
// file, or for one track); a later one keeps the file's own key. The list
// stands in the order of precedence.
void SettleKeys(std::vector<TagDraft> *tags);
