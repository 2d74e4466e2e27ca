// Tags carried to a write handle: the ones the writer has a place for.
#include "tag_copy.h"

#include <cstdio>
#include <cstring>

namespace {

// The common keys of MP4Tag.
constexpr const char *kCommonKeys[] = {
    "title", "artist", "album_artist", "album", "date", "genre", "comment", "composer", "copyright", "description",
    "encoder", "track", "disc", "compilation", "cover", "location", "make", "model", "software", "creation_time",
    "modification_time"};

bool StartsWith(const char *text, const char *prefix) {
    return text != nullptr && std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

}  // namespace

bool CarriedTag(const MP4Tag &tag) {
    if (tag.TrackId != 0 || tag.Key == nullptr) return false;
    for (const char *key : kCommonKeys)
        if (std::strcmp(tag.Key, key) == 0) return true;
    return StartsWith(tag.Source, "moov/udta/meta/") || StartsWith(tag.Source, "moov/meta/");
}

std::vector<uint32_t> ChapterTrackIds(MP4_local_file *in) {
    std::vector<uint32_t> ids;
    uint32_t count = 0;
    MP4GetTrackCount(in, &count);
    for (uint32_t i = 1; i <= count; ++i) {
        char path[48];
        std::snprintf(path, sizeof path, "moov/trak[%u]/tref/chap", i);
        uint8_t *data = nullptr;
        uint64_t size = 0;
        if (MP4GetAtom(in, path, &data, &size) != 1) continue;
        for (uint64_t at = 0; at + 4 <= size; at += 4)
            ids.push_back(uint32_t(data[at]) << 24 | uint32_t(data[at + 1]) << 16 | uint32_t(data[at + 2]) << 8 |
                          data[at + 3]);
        MP4freeData(reinterpret_cast<void **>(&data));
    }
    return ids;
}

int32_t SetWritableTags(MP4_local_file *out, const std::vector<MP4Tag> &tags, const char *command,
                        uint32_t *kept) {
    int32_t result = MP4SetMetadata(out, tags.data(), uint32_t(tags.size()));
    *kept = result == 1 ? uint32_t(tags.size()) : 0;
    if (result != -96) return result;
    // Each tag on its own tells which ones have no place.
    std::vector<MP4Tag> writable;
    for (const MP4Tag &tag : tags) {
        if (MP4SetMetadata(out, &tag, 1) == 1) {
            writable.push_back(tag);
        } else {
            std::fprintf(stderr, "mp4core %s: tag %s (from %s) has no place in the output and is left out\n",
                         command, tag.Key != nullptr ? tag.Key : "?", tag.Source != nullptr ? tag.Source : "the caller");
        }
    }
    result = MP4SetMetadata(out, writable.data(), uint32_t(writable.size()));
    *kept = result == 1 ? uint32_t(writable.size()) : 0;
    return result;
}
