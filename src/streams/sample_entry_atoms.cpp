// The sample entry's own atoms, read from its bytes in memory: the child
// atoms that say how PCM samples are stored ("pcmC", QuickTime's "enda" in
// "wave") and the "esds" that tells MPEG audio from AAC.
#include <cstring>

#include "frame/frame.h"
#include "streams/streams.h"

namespace {

constexpr size_t kHead = 8;
constexpr size_t kLargeHead = 16;
// Where the children of an entry begin, behind its head: a sound entry's
// by its QuickTime version (0, 1, 2), a visual entry's behind its fixed
// fields.
constexpr size_t kSoundChildren[3] = {28, 44, 64};
constexpr size_t kVisualChildren = 78;
constexpr size_t kSoundVersion = 8;

// The payload of the child `name` among the atoms in [at, end), or one
// level down in a "wave" among them. Each step passes at least one head,
// so the walk ends.
const uint8_t *FindChild(const uint8_t *bytes, size_t at, size_t end, const char *name,
                         size_t *size, bool intoWave) {
    while (end - at >= kHead) {
        uint64_t length = GetBE32(bytes, at);
        if (length == 0) length = end - at;
        if (length < kHead || length > end - at) return nullptr;
        const uint8_t *type = bytes + at + 4;
        if (std::memcmp(type, name, 4) == 0) {
            *size = size_t(length) - kHead;
            return bytes + at + kHead;
        }
        if (intoWave && std::memcmp(type, "wave", 4) == 0) {
            const uint8_t *inner = FindChild(bytes, at + kHead, at + size_t(length), name, size, false);
            if (inner != nullptr) return inner;
        }
        at += size_t(length);
    }
    return nullptr;
}

}  // namespace

size_t EntryHead(const StreamTrack &track) {
    return track.EntrySize >= kHead && GetBE32(track.Entry, 0) == 1 ? kLargeHead : kHead;
}

uint32_t SoundEntryVersion(const StreamTrack &track) {
    if (track.Entry == nullptr || track.EntrySize < kHead) return 0;
    const size_t at = EntryHead(track) + kSoundVersion;
    return track.EntrySize >= at + 2 ? GetBE16(track.Entry, at) : 0;
}

const uint8_t *FindEntryChild(const StreamTrack &track, const char *name, size_t *size) {
    if (track.Entry == nullptr || track.EntrySize < kHead) return nullptr;
    size_t children = 0;
    if (track.TrackType == MP4_TRACK_AUDIO) {
        const uint32_t version = SoundEntryVersion(track);
        if (version > 2) return nullptr;
        children = kSoundChildren[version];
    } else if (track.TrackType == MP4_TRACK_VIDEO) {
        children = kVisualChildren;
    } else {
        return nullptr;
    }
    children += EntryHead(track);
    if (children > track.EntrySize) return nullptr;
    return FindChild(track.Entry, children, track.EntrySize, name, size, true);
}
