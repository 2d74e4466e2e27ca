// AC-3 and E-AC-3 sync frames: "ac-3" with a "dac3", or "ec-3" with a
// "dec3", built from the first frame as MP4GetDecoderConfig gives them.
// An AC-3 frame is a sample of 1536 samples; E-AC-3 frames of fewer than six
// blocks are joined into samples of six (1536 samples), as FFmpeg's muxer
// joins them. E-AC-3 with dependent or further independent substreams is
// not taken (its "dec3" would have to list them from frames not yet read).
#include "media/bit_reader.h"
#include "media/media.h"
#include "mux/readers.h"

namespace mux {

namespace {

constexpr size_t kHeaderBytes = 8;  // enough for every field read below
constexpr uint32_t kBlockSamples = 256;
constexpr uint32_t kSampleBlocks = 6;
constexpr uint32_t kLastAc3Bsid = 10, kLastEac3Bsid = 16;
constexpr uint32_t kBlocks[4] = {1, 2, 3, 6};
// AC-3 bit rates in kbit/s by frame size code / 2.
constexpr uint32_t kAc3BitRates[19] = {32, 40, 48, 56, 64, 80, 96, 112, 128, 160,
                                       192, 224, 256, 320, 384, 448, 512, 576, 640};

struct SyncFrame {
    bool enhanced;         // E-AC-3
    uint32_t fscod, bsid, bsmod, acmod, lfeon;
    uint32_t rate;
    uint32_t blocks;       // of 256 samples
    uint32_t bitRateCode;  // AC-3
    uint32_t streamType, substream;  // E-AC-3
    size_t length;
};

// false: no sync frame header, or one of reserved values.
bool ReadHead(const uint8_t *h, SyncFrame *f) {
    if (h[0] != 0x0B || h[1] != 0x77) return false;
    f->bsid = h[5] >> 3;
    f->enhanced = f->bsid > kLastAc3Bsid;
    if (f->bsid > kLastEac3Bsid) return false;
    BitReader r = MakeBitReader(h + 2, kHeaderBytes - 2);
    if (!f->enhanced) {
        ReadBits(&r, 16);  // crc1
        f->fscod = ReadBits(&r, 2);
        const uint32_t sizeCode = ReadBits(&r, 6);
        if (f->fscod == 3 || sizeCode > 37) return false;
        ReadBits(&r, 5);
        f->bsmod = ReadBits(&r, 3);
        f->acmod = ReadBits(&r, 3);
        if ((f->acmod & 1) && f->acmod != 1) ReadBits(&r, 2);  // centre mix level
        if (f->acmod & 4) ReadBits(&r, 2);                      // surround mix level
        if (f->acmod == 2) ReadBits(&r, 2);                     // Dolby Surround mode
        f->lfeon = ReadBits(&r, 1);
        f->bitRateCode = sizeCode / 2;
        const uint32_t kbits = kAc3BitRates[f->bitRateCode];
        // 16-bit words: 2 or 3 per kbit/s at 48 and 32 kHz; at 44.1 kHz
        // the odd codes carry one word of padding.
        const uint32_t words = f->fscod == 0 ? 2 * kbits : f->fscod == 2 ? 3 * kbits : kbits * 320 / 147 + (sizeCode & 1);
        f->length = 2 * size_t(words);
        f->rate = kAc3SampleRates[f->fscod];
        f->blocks = kSampleBlocks;
        return true;
    }
    f->streamType = ReadBits(&r, 2);
    f->substream = ReadBits(&r, 3);
    f->length = 2 * (size_t(ReadBits(&r, 11)) + 1);
    f->fscod = ReadBits(&r, 2);
    const uint32_t code = ReadBits(&r, 2);
    if (f->fscod == 3) {
        if (code == 3) return false;
        f->rate = kAc3SampleRates[code] / 2;
        f->blocks = kSampleBlocks;
    } else {
        f->rate = kAc3SampleRates[f->fscod];
        f->blocks = kBlocks[code];
    }
    f->acmod = ReadBits(&r, 3);
    f->lfeon = ReadBits(&r, 1);
    f->bsmod = 0;  // in the frame's informational metadata, which FFmpeg leaves at 0 too
    return f->streamType != 3;
}

struct Ac3Reader : Reader {
    Cursor cursor;
    SyncFrame first{};
    uint64_t time = 0;
};

}  // namespace

bool Ac3Probe(const uint8_t *head, size_t size) {
    SyncFrame f{}, next{};
    if (size < kHeaderBytes || !ReadHead(head, &f)) return false;
    return size < f.length + kHeaderBytes || ReadHead(head + f.length, &next);
}

Reader *Ac3Open(ByteStream *in, const Options &, TrackDescription *track, Failure *failure) {
    auto *reader = new Ac3Reader;
    reader->cursor.in = in;
    SyncFrame &f = reader->first;
    const char *why = nullptr;
    if (!Hold(in, kHeaderBytes) || !ReadHead(in->bytes.data(), &f))
        why = in->failed ? "the input can't be read" : "no AC-3 or E-AC-3 sync frame at the start";
    else if (f.enhanced && (f.streamType != 0 || f.substream != 0))
        why = "the first E-AC-3 frame is no independent substream 0";
    if (why != nullptr) {
        Fail(failure, 0, "%s", why);
        delete reader;
        return nullptr;
    }
    const uint32_t channels = kAc3ModeChannels[f.acmod] + f.lfeon;
    if (!f.enhanced) {
        const uint32_t bits = (f.fscod << 22) | (f.bsid << 17) | (f.bsmod << 14) | (f.acmod << 11) |
                              (f.lfeon << 10) | (f.bitRateCode << 5);
        track->config = {uint8_t(bits >> 16), uint8_t(bits >> 8), uint8_t(bits)};
        DescribeSound(track, "ac-3", f.rate, channels);
        return reader;
    }
    // Data rate (kbit/s), one independent substream: its fields, no
    // dependent substreams.
    const uint32_t dataRate = uint32_t(uint64_t(f.length) * 8 * f.rate / (f.blocks * kBlockSamples) / 1000);
    const uint32_t fscod = f.fscod == 3 ? 3 : f.fscod;
    track->config = {uint8_t(dataRate >> 5), uint8_t(dataRate << 3),
                     uint8_t((fscod << 6) | (f.bsid << 1)),
                     uint8_t((f.bsmod << 4) | (f.acmod << 1) | f.lfeon), 0};
    DescribeSound(track, "ec-3", f.rate, channels);
    return reader;
}

Step Ac3Next(Reader *base, Sample *sample, Failure *failure) {
    auto *reader = static_cast<Ac3Reader *>(base);
    Cursor &c = reader->cursor;
    c.Release();
    const SyncFrame &first = reader->first;
    size_t length = 0;
    uint32_t blocks = 0;
    while (blocks < kSampleBlocks) {
        const uint64_t offset = c.Offset() + length;
        if (!c.Hold(length + kHeaderBytes)) {
            if (length != 0 && !c.in->failed && c.Held() == length) break;  // a last sample of fewer blocks
            return EndOfFrames(c, failure, "a sync frame");
        }
        SyncFrame f{};
        if (!ReadHead(c.Here() + length, &f)) return Fail(failure, offset, "no sync frame where one should begin");
        if (f.enhanced != first.enhanced || f.rate != first.rate || f.acmod != first.acmod || f.lfeon != first.lfeon)
            return Fail(failure, offset, "the sync frame changes the codec, sampling rate or channels of the first");
        if (f.enhanced && (f.streamType != 0 || f.substream != 0))
            return Fail(failure, offset, "an E-AC-3 dependent or further independent substream, which is not taken");
        if (!c.Hold(length + f.length)) return EndOfFrames(c, failure, "a sync frame");
        length += f.length;
        blocks += f.blocks;
    }
    *sample = Sample{};
    sample->data = c.Here();
    sample->size = length;
    sample->decodeTime = reader->time;
    sample->key = true;
    reader->time += uint64_t(blocks) * kBlockSamples;
    c.at += length;
    return Step::kSample;
}

void Ac3Close(Reader *reader) { delete reader; }

}  // namespace mux
