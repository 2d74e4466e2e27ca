// WAV (RIFF/WAVE) PCM in the sample entries FFmpeg's QuickTime muxer uses,
// which FFmpeg and GStreamer read: 8-bit samples as signed "twos", 16-bit
// as "sowt" (little-endian, as they are), 24- and 32-bit integers as
// "in24"/"in32" and floats as "fl32"/"fl64", those four big-endian as
// entries without "enda" say. Samples of up to 1024 frames, as the
// writer's PCM path takes them. A "data" chunk of size 0 or 0xFFFFFFFF (a
// WAV written to a pipe) runs to the end of the input.
#include <algorithm>
#include <cstring>
#include <utility>

#include "mux/readers.h"

namespace mux {

namespace {

constexpr uint16_t kIntegerPcm = 1, kFloat = 3, kExtensible = 0xFFFE;
constexpr size_t kChunkHead = 8;
constexpr size_t kFmtBytes = 16, kExtensibleBytes = 40;
constexpr uint32_t kFramesPerSample = 1024;
constexpr uint64_t kUnknownSize = 0xFFFFFFFF;

struct PcmEntry {
    uint16_t format;
    uint32_t bits;
    char entry[5];
    bool swap;       // to big-endian
    bool flipSign;   // unsigned 8-bit to signed
};

constexpr PcmEntry kEntries[] = {
    {kIntegerPcm, 8, "twos", false, true},  {kIntegerPcm, 16, "sowt", false, false},
    {kIntegerPcm, 24, "in24", true, false}, {kIntegerPcm, 32, "in32", true, false},
    {kFloat, 32, "fl32", true, false},      {kFloat, 64, "fl64", true, false},
};

struct WavReader : Reader {
    Cursor cursor;
    const PcmEntry *entry = nullptr;
    uint32_t frameBytes = 0;
    uint64_t left = 0;      // bytes of "data" not yet read; UINT64_MAX: to the end
    uint64_t frames = 0;
    Bytes converted;
};

}  // namespace

bool WavProbe(const uint8_t *head, size_t size) {
    return size >= 12 && std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 8, "WAVE", 4) == 0;
}

Reader *WavOpen(ByteStream *in, const Options &, TrackDescription *track, Failure *failure) {
    auto *reader = new WavReader;
    Cursor &c = reader->cursor;
    c.in = in;
    const char *why = nullptr;
    uint16_t format = 0, channels = 0, blockAlign = 0, bits = 0;
    uint32_t rate = 0;
    bool haveFormat = false;
    size_t at = 12;
    for (;;) {
        if (!c.Hold(at + kChunkHead)) {
            why = in->failed ? "the input can't be read" : "the stream ends before its \"data\" chunk";
            break;
        }
        const uint8_t *chunk = c.Here() + at;
        const uint64_t size = LittleEndian(chunk + 4, 4);
        if (std::memcmp(chunk, "data", 4) == 0) {
            reader->left = size == 0 || size == kUnknownSize ? UINT64_MAX : size;
            at += kChunkHead;
            break;
        }
        if (size > (uint64_t(1) << 24) || !c.Hold(at + kChunkHead + size_t(size))) {
            why = "a chunk in front of \"data\" is cut short or larger than 16 MiB";
            break;
        }
        chunk = c.Here() + at;
        if (std::memcmp(chunk, "fmt ", 4) == 0 && size >= kFmtBytes) {
            haveFormat = true;
            format = uint16_t(LittleEndian(chunk + 8, 2));
            channels = uint16_t(LittleEndian(chunk + 10, 2));
            rate = LittleEndian(chunk + 12, 4);
            blockAlign = uint16_t(LittleEndian(chunk + 20, 2));
            bits = uint16_t(LittleEndian(chunk + 22, 2));
            if (format == kExtensible && size >= kExtensibleBytes) format = uint16_t(LittleEndian(chunk + 32, 2));
        }
        at += kChunkHead + size_t(size) + (size & 1);
    }
    if (why == nullptr && !haveFormat) why = "no \"fmt \" chunk in front of \"data\"";
    for (const PcmEntry &entry : kEntries)
        if (entry.format == format && entry.bits == bits) reader->entry = &entry;
    if (why == nullptr && reader->entry == nullptr)
        why = "its format is no integer PCM of 8, 16, 24 or 32 bits or float of 32 or 64 bits";
    else if (why == nullptr && (channels == 0 || rate == 0 || blockAlign != channels * (bits / 8)))
        why = "its \"fmt \" chunk gives no channels, no rate, or a block size other than channels x bytes a sample";
    if (why != nullptr) {
        Fail(failure, c.Offset() + at, "%s", why);
        delete reader;
        return nullptr;
    }
    c.at = at;
    reader->frameBytes = blockAlign;
    DescribeSound(track, reader->entry->entry, rate, channels);
    track->entry.BitsPerSample = bits;
    return reader;
}

Step WavNext(Reader *base, Sample *sample, Failure *failure) {
    auto *reader = static_cast<WavReader *>(base);
    Cursor &c = reader->cursor;
    c.Release();
    const size_t whole = size_t(reader->frameBytes) * kFramesPerSample;
    const size_t want = size_t(std::min<uint64_t>(whole, reader->left));
    c.Hold(want);
    if (c.in->failed) return EndOfFrames(c, failure, "the samples");
    size_t size = std::min(want, c.Held());
    if (size == 0) {
        if (reader->left != UINT64_MAX && reader->left != 0)
            return Fail(failure, c.Offset(), "the stream ends %llu bytes before its \"data\" chunk does",
                        static_cast<unsigned long long>(reader->left));
        return Step::kEnd;
    }
    if (size % reader->frameBytes != 0) {
        return Fail(failure, c.Offset() + size / reader->frameBytes * reader->frameBytes,
                    "the samples end inside a frame of %u bytes", reader->frameBytes);
    }
    const PcmEntry &entry = *reader->entry;
    const uint8_t *data = c.Here();
    if (entry.swap || entry.flipSign) {
        reader->converted.assign(data, data + size);
        const uint32_t unit = entry.bits / 8;
        for (size_t at = 0; at < size; at += unit) {
            uint8_t *u = reader->converted.data() + at;
            if (entry.swap) std::reverse(u, u + unit);
            if (entry.flipSign) u[0] ^= 0x80;
        }
        data = reader->converted.data();
    }
    *sample = Sample{};
    sample->data = data;
    sample->size = size;
    sample->decodeTime = reader->frames;
    sample->duration = uint32_t(size / reader->frameBytes);
    sample->key = true;
    reader->frames += sample->duration;
    if (reader->left != UINT64_MAX) reader->left -= size;
    c.at += size;
    return Step::kSample;
}

void WavClose(Reader *reader) { delete reader; }

}  // namespace mux
