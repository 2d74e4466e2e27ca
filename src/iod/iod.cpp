// EncryptMp4Iod writes an Initial Object Descriptor from one fixed bit
// template with the video and audio configurations filled in; DecryptMp4Iod
// reads the two configurations back by the same template. No cipher is
// involved: the names are the ones applications know.
#include "iod/iod.h"

#include <cstdlib>
#include <cstring>

#include "frame/frame.h"
#include "media/media.h"
#include "mp4core.h"
#include "tracks/tracks.h"

namespace {

struct TemplateRow {
    uint32_t Bits;   // 0: a block from outside, written as a length byte and its bytes
    uint32_t Value;
};

// The descriptor, row by row. Length fields are fixed and are not adjusted
// to the blocks filled in.
constexpr TemplateRow kIodTemplate[] = {
    {8, 0x02}, {16, 0x817F},                     // IOD tag, size
    {10, 1}, {1, 0}, {1, 0}, {4, 0xF},           // OD ID, URL flag, inline flag, reserved
    {8, 1}, {8, 1}, {8, 1}, {8, 1}, {8, 1},      // OD, scene, audio, visual, graphics profiles
    {8, 0x03}, {16, 0x8112},                     // ES descriptor tag, size
    {16, 1}, {1, 0}, {1, 1}, {1, 0}, {5, 0},     // ES ID, dependence, URL, OCR flags, priority
    {8, 0x6E},                                   // URL length: 110
    // "data:application/mpeg4-od-au;base64,"
    {8, 'd'}, {8, 'a'}, {8, 't'}, {8, 'a'}, {8, ':'}, {8, 'a'}, {8, 'p'}, {8, 'p'}, {8, 'l'},
    {8, 'i'}, {8, 'c'}, {8, 'a'}, {8, 't'}, {8, 'i'}, {8, 'o'}, {8, 'n'}, {8, '/'}, {8, 'm'},
    {8, 'p'}, {8, 'e'}, {8, 'g'}, {8, '4'}, {8, '-'}, {8, 'o'}, {8, 'd'}, {8, '-'}, {8, 'a'},
    {8, 'u'}, {8, ';'}, {8, 'b'}, {8, 'a'}, {8, 's'}, {8, 'e'}, {8, '6'}, {8, '4'}, {8, ','},
    // The URL's payload: an object descriptor update with two descriptors.
    {8, 0x01}, {8, 0x38},                        // OD update command tag, size
    {8, 0x03}, {8, 0x1B},                        // first object descriptor tag, size
    {10, 20}, {1, 0}, {5, 0x1F},                 // OD ID, URL flag, reserved
    {8, 0x03}, {8, 0x17},                        // ES descriptor tag, size
    {16, 201}, {1, 0}, {1, 0}, {1, 1}, {5, 4},   // ES ID, flags, priority
    {16, 101},                                   // OCR ES ID
    {8, 0x04}, {8, 0x0D},                        // decoder configuration tag, size
    {6, 4}, {1, 0}, {1, 1},                      // stream type visual, upstream, reserved
    {24, 6000}, {32, 64000}, {32, 50000},        // buffer size, max and average bit rate
    {8, 0x05},                                   // decoder specific information tag
    {0, 0},                                      // video configuration
    {8, 0x06}, {8, 1}, {8, 4},                   // SL configuration: predefined 4
    {8, 0x01}, {8, 0x19},                        // second object descriptor tag, size
    {10, 10}, {1, 0}, {5, 0x1F},                 // OD ID, URL flag, reserved
    {8, 0x03}, {8, 0x15},                        // ES descriptor tag, size
    {16, 101}, {1, 0}, {1, 0}, {1, 0}, {5, 5},   // ES ID, flags, priority
    {8, 0x04}, {8, 0x0D},                        // decoder configuration tag, size
    {8, 0x40}, {6, 5}, {1, 0}, {1, 1},           // MPEG-4 audio, stream type audio, flags
    {24, 2000}, {32, 16000}, {32, 16000},        // buffer size, max and average bit rate
    {8, 0x05},                                   // decoder specific information tag
    {0, 0},                                      // audio configuration
    {8, 0x06}, {8, 1}, {8, 3},                   // SL configuration: predefined 3
    {8, 0x04}, {10, 0},                          // ends 2 bits into a byte
};
constexpr size_t kRowCount = sizeof(kIodTemplate) / sizeof(kIodTemplate[0]);
static_assert(kRowCount == 111, "the descriptor template has 111 rows");

constexpr uint32_t SumBits(size_t from, size_t to) {
    uint32_t sum = 0;
    for (size_t i = from; i < to; ++i) sum += kIodTemplate[i].Bits;
    return sum;
}
constexpr size_t FindBlockRow(size_t from) {
    size_t i = from;
    while (i < kRowCount && kIodTemplate[i].Bits != 0) ++i;
    return i;
}
constexpr size_t kVideoRow = FindBlockRow(0);
constexpr size_t kAudioRow = FindBlockRow(kVideoRow + 1);
constexpr uint32_t kBitsBeforeVideo = SumBits(0, kVideoRow);
constexpr uint32_t kBitsBetweenBlocks = SumBits(kVideoRow + 1, kAudioRow);
constexpr uint32_t kTemplateBits = SumBits(0, kRowCount);
static_assert(kTemplateBits == 914, "the template has 914 bits beside its blocks");
static_assert(kBitsBeforeVideo % 8 == 0 && kBitsBetweenBlocks % 8 == 0,
              "both blocks begin on a byte boundary");

// Offset of the first length byte, and the distance of the second one
// behind the end of the first block.
constexpr size_t kVideoLengthOffset = kBitsBeforeVideo / 8;  // 81
constexpr size_t kBetweenBlocks = kBitsBetweenBlocks / 8;    // 28
// The template bits, a whole byte for the last 2 bits, and room for both
// length bytes and blocks.
constexpr size_t kOutputBufferBytes = (kTemplateBits + 8) / 8 + 201;
static_assert(kOutputBufferBytes >= (kTemplateBits + 7) / 8 + 2 + kIodMaxBlockTotal - 1,
              "the largest accepted blocks fit the buffer");

struct Block {
    const uint8_t *Bytes = nullptr;
    uint32_t Size = 0;
};

// A writer of bits into a zeroed buffer, from the top bit of byte 0.
struct BitSink {
    uint8_t *Buffer;
    size_t BitPosition;
};

void PutBits(BitSink *sink, uint32_t value, uint32_t bits) {
    for (uint32_t i = bits; i-- > 0;) {
        if ((value >> i) & 1u) sink->Buffer[sink->BitPosition / 8] |= uint8_t(0x80u >> (sink->BitPosition % 8));
        ++sink->BitPosition;
    }
}

// Blocks stand on byte boundaries; a length byte, then the bytes.
void PutBlock(BitSink *sink, const Block &block) {
    uint8_t *at = sink->Buffer + sink->BitPosition / 8;
    at[0] = uint8_t(block.Size);
    if (block.Size) memcpy(at + 1, block.Bytes, block.Size);
    sink->BitPosition += 8 * (size_t(block.Size) + 1);
}

}  // namespace

size_t IodBufferBytes() { return kOutputBufferBytes; }

int32_t EncryptMp4Iod(MP4_local_file *file, uint8_t **iod, const uint8_t *videoConfig,
                      uint8_t videoConfigSize) {
    if (file == nullptr || iod == nullptr) return kEncryptBadArguments;
    ReadForm &form = file->read;

    // The blocks are found first, so that nothing changes when one is
    // refused. A track that can't give its configuration gives an empty
    // block.
    Mp4MediaInfo *videoInfo = nullptr;
    Mp4MediaInfo *audioInfo = nullptr;
    Block video, audio;
    if (videoConfig != nullptr && videoConfigSize != 0) {
        video = {videoConfig, videoConfigSize};
    } else if (form.VideoCurrent != nullptr &&
               RetMp4MediaInfo(file, form.VideoCurrent->TrackId, MP4_TRACK_VIDEO, &videoInfo) == 1) {
        video = {videoInfo->EsdsData, videoInfo->EsdsSize};
    }
    if (form.AudioCurrent != nullptr &&
        RetMp4MediaInfo(file, form.AudioCurrent->TrackId, MP4_TRACK_AUDIO, &audioInfo) == 1) {
        if (audioInfo->DamrSize != 0)
            audio = {audioInfo->DamrData, audioInfo->DamrSize};
        else
            audio = {audioInfo->EsdsData, audioInfo->EsdsSize};
    }

    int32_t result = kEncryptBlockTooLarge;
    if (video.Size <= kIodMaxBlockBytes && audio.Size <= kIodMaxBlockBytes &&
        video.Size + audio.Size < kIodMaxBlockTotal) {
        uint8_t *buffer = static_cast<uint8_t *>(realloc(form.IodBuffer, kOutputBufferBytes));
        if (buffer == nullptr) {
            result = kEncryptNoMemory;
        } else {
            form.IodBuffer = buffer;
            memset(buffer, 0, kOutputBufferBytes);
            BitSink sink{buffer, 0};
            for (size_t row = 0; row < kRowCount; ++row) {
                if (kIodTemplate[row].Bits != 0)
                    PutBits(&sink, kIodTemplate[row].Value, kIodTemplate[row].Bits);
                else
                    PutBlock(&sink, row == kVideoRow ? video : audio);
            }
            *iod = buffer;
            result = int32_t(sink.BitPosition / 8);  // the last 2 bits are not counted
        }
    }
    FreeMediaInfo(videoInfo);
    FreeMediaInfo(audioInfo);
    return result;
}

int32_t DecryptMp4Iod(IodConfigs *configs, uint8_t **iod) {
    if (configs == nullptr || iod == nullptr || *iod == nullptr) return kDecryptBadArguments;
    const uint8_t *input = *iod;
    // Without a length the input is taken to be what EncryptMp4Iod wrote;
    // block lengths that it never writes are refused, which keeps every
    // read inside its buffer.
    const uint32_t videoSize = input[kVideoLengthOffset];
    if (videoSize == 0) return kDecryptNoVideoBlock;
    if (videoSize > kIodMaxBlockBytes) return kDecryptBlockTooLarge;
    const uint8_t *videoBytes = input + kVideoLengthOffset + 1;
    const size_t audioLengthOffset = kVideoLengthOffset + 1 + videoSize + kBetweenBlocks;
    const uint32_t audioSize = input[audioLengthOffset];
    if (audioSize > kIodMaxBlockBytes || videoSize + audioSize >= kIodMaxBlockTotal)
        return kDecryptBlockTooLarge;

    // Each block one byte larger than its size; the extra byte is zero.
    uint8_t *videoCopy = static_cast<uint8_t *>(ZeroAlloc(videoSize + 1));
    uint8_t *audioCopy = audioSize ? static_cast<uint8_t *>(ZeroAlloc(audioSize + 1)) : nullptr;
    if (videoCopy == nullptr || (audioSize != 0 && audioCopy == nullptr)) {
        free(videoCopy);
        free(audioCopy);
        return kDecryptNoMemory;
    }
    memcpy(videoCopy, videoBytes, videoSize);
    configs->VideoConfig = videoCopy;
    configs->VideoConfigSize = videoSize;
    if (audioSize != 0) {
        memcpy(audioCopy, input + audioLengthOffset + 1, audioSize);
        configs->AudioConfig = audioCopy;
        configs->AudioConfigSize = audioSize;
    }
    return kDecryptDone;
}
