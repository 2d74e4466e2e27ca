#include "raw_streams.h"

#include <cstring>

using mux::LetGo;
using mux::ReadMore;

namespace {

constexpr size_t kAdtsHeader = 7;
constexpr size_t kAdtsCrc = 2;

// Waits for the whole ADTS frame at `next`; false at the end of the
// stream (fewer than 7 bytes left) or with `broken` set.
bool WholeAdtsFrame(AudioStream *audio, size_t *length, size_t *headerSize) {
    ByteStream &in = audio->in;
    while (in.bytes.size() - audio->next < kAdtsHeader && ReadMore(&in)) {
    }
    if (in.bytes.size() - audio->next < kAdtsHeader) return false;
    const uint8_t *h = in.bytes.data() + audio->next;
    *length = (size_t(h[3] & 0x03) << 11) | (size_t(h[4]) << 3) | (h[5] >> 5);
    *headerSize = kAdtsHeader + ((h[1] & 1) ? 0 : kAdtsCrc);
    audio->broken = h[0] != 0xFF || (h[1] & 0xF0) != 0xF0 || *length < *headerSize;
    if (audio->broken) return false;
    while (in.bytes.size() - audio->next < *length && ReadMore(&in)) {
    }
    audio->broken = in.bytes.size() - audio->next < *length;
    return !audio->broken;
}

}  // namespace

bool ReadAudioHeader(AudioStream *audio) {
    size_t length = 0, headerSize = 0;
    if (!WholeAdtsFrame(audio, &length, &headerSize)) return false;
    std::memcpy(audio->header, audio->in.bytes.data(), kAdtsHeader);
    return true;
}

bool NextAudioFrame(AudioStream *audio, RawFrame *frame) {
    audio->next -= LetGo(&audio->in, audio->next);
    size_t length = 0, headerSize = 0;
    if (!WholeAdtsFrame(audio, &length, &headerSize)) return false;
    *frame = {audio->in.bytes.data() + audio->next + headerSize, length - headerSize, false};
    audio->next += length;
    return true;
}
