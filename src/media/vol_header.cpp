// The header of an MPEG-4 visual elementary stream: the video object layer
// parser and the export that measures the header at the start of a file.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"
#include "media/bit_reader.h"
#include "media/media.h"
#include "mp4core.h"

namespace {

constexpr int32_t kVolParsed = 1;
constexpr int32_t kVolNotRectangular = -1;
constexpr int32_t kVolOutOfInput = -1;
constexpr int32_t kVolNoLayerStartCode = -1;
constexpr int32_t kVolSprites = -2;
constexpr int32_t kVolNot8Bit = -3;
constexpr int32_t kVolComplexityEstimation = -5;
constexpr int32_t kVolNewpred = -6;
constexpr int32_t kVolReducedResolution = -7;

constexpr uint32_t kUserDataStartCode = 0x000001B2;
constexpr uint32_t kQuantMatrixBits = 64 * 8;
constexpr uint32_t kMaxWarpingPoints = 3;

constexpr size_t kHeaderBufferBytes = 500;
constexpr uint32_t kHeaderSizeFailed = 0xFFFFFFFFu;
constexpr uint32_t kHeaderSizeNoMemory = 0;

// Bits of the fixed time increment: log2 of the resolution rounded up, at
// least 1. Worked out in integers, which is exact for powers of two.
uint32_t TimeIncrementBits(uint32_t resolution) {
    uint32_t bits = 1;
    while (bits < 32 && (uint64_t(1) << bits) < resolution) ++bits;
    return bits;
}

bool IsStartCodePrefix(const uint8_t *bytes) {
    return bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 1;
}

// A video object layer start code: 00 00 01 20 to 00 00 01 2F.
bool IsLayerStartCode(const uint8_t *bytes) {
    return IsStartCodePrefix(bytes) && (bytes[3] & 0xF0) == 0x20;
}

}  // namespace

int32_t ParseVolHeader(const uint8_t *data, size_t length, uint32_t *width, uint32_t *height,
                       uint32_t *headerSize) {
    // The second start code must be the one of a video object layer: a
    // parse of anything else would make up a picture size.
    if (data == nullptr || length < 8 || !IsLayerStartCode(data + 4)) return kVolNoLayerStartCode;

    BitReader reader = MakeBitReader(data, length);
    BitReader *r = &reader;
    ReadBits(r, 32);  // video object start code
    ReadBits(r, 32);  // video object layer start code
    ReadBits(r, 9);   // random access, object type indication

    uint32_t version = 1;
    if (ReadBits(r, 1)) {
        version = ReadBits(r, 4);
        ReadBits(r, 3);  // priority
    }
    if (ReadBits(r, 4) == 15) ReadBits(r, 16);  // extended pixel aspect ratio
    if (ReadBits(r, 1)) {                        // control parameters
        ReadBits(r, 3);
        if (ReadBits(r, 1)) ReadBits(r, 79);     // buffer parameters
    }
    const uint32_t shape = ReadBits(r, 2);
    if (r->Exhausted) return kVolOutOfInput;
    if (shape != 0) return kVolNotRectangular;

    ReadBits(r, 1);
    const uint32_t resolution = ReadBits(r, 16);
    ReadBits(r, 1);
    if (ReadBits(r, 1)) ReadBits(r, TimeIncrementBits(resolution));  // fixed rate
    ReadBits(r, 1);
    const uint32_t pictureWidth = ReadBits(r, 13);
    if (r->Exhausted) return kVolOutOfInput;
    if (width) *width = pictureWidth;
    ReadBits(r, 1);
    const uint32_t pictureHeight = ReadBits(r, 13);
    if (r->Exhausted) return kVolOutOfInput;
    if (height) *height = pictureHeight;

    ReadBits(r, 3);  // marker, interlaced, overlapped motion compensation
    const uint32_t spriteMode = ReadBits(r, version == 1 ? 1 : 2);
    if (r->Exhausted) return kVolOutOfInput;
    // Static sprites carry fields this parser does not walk; going on
    // would misread everything behind them.
    if (spriteMode == 1) return kVolSprites;
    if (spriteMode == 2) {
        if (ReadBits(r, 6) > kMaxWarpingPoints) return kVolSprites;
        ReadBits(r, 3);
    }
    if (ReadBits(r, 1)) return kVolNot8Bit;
    if (ReadBits(r, 1)) {  // quantisation type: two optional matrices
        if (ReadBits(r, 1)) ReadBits(r, kQuantMatrixBits);
        if (ReadBits(r, 1)) ReadBits(r, kQuantMatrixBits);
    }
    if (version != 1) ReadBits(r, 1);  // quarter sample
    const uint32_t complexityDisabled = ReadBits(r, 1);
    if (r->Exhausted) return kVolOutOfInput;
    if (!complexityDisabled) return kVolComplexityEstimation;
    ReadBits(r, 1);                    // resync marker disable
    if (ReadBits(r, 1)) ReadBits(r, 1);  // data partitioned, reversible VLC
    if (version != 1) {
        const uint32_t newpred = ReadBits(r, 1);
        const uint32_t reduced = ReadBits(r, 1);
        if (r->Exhausted) return kVolOutOfInput;
        if (newpred) return kVolNewpred;
        if (reduced) return kVolReducedResolution;
    }
    ReadBits(r, 1);                      // scalability, not acted on
    ReadBits(r, BitsLeftInByte(r));      // stuffing to the byte boundary

    const uint32_t nextCode = ReadBits(r, 32);
    if (r->Exhausted) return kVolOutOfInput;
    size_t passed = BytesPassed(r);
    if (nextCode == kUserDataStartCode) {
        // User data runs up to the next start code and belongs to the
        // header.
        while (true) {
            if (length - passed < 3) return kVolOutOfInput;
            if (IsStartCodePrefix(data + passed)) break;
            ++passed;
        }
    } else {
        passed -= 4;  // the next start code is not part of the header
    }
    if (headerSize) *headerSize = uint32_t(passed);
    return kVolParsed;
}

namespace {

// The header of the stream whose first bytes are in `buffer`: bytesRead of
// them, zeros behind up to kHeaderBufferBytes and one spare zero byte more.
uint32_t MeasureHeaderBuffer(const uint8_t *buffer, size_t bytesRead, uint32_t *width,
                             uint32_t *height) {
    // A video object start code (00 to 1F) or a visual object sequence.
    const bool visualObjectSequence = buffer[3] == 0xB0;
    if (!IsStartCodePrefix(buffer) || !(buffer[3] < 0x20 || visualObjectSequence))
        return kHeaderSizeFailed;
    size_t offset = 0;
    if (visualObjectSequence) {
        // Up to the bytes read less 3: a 00 00 01 that ends the bytes read
        // is followed by a 0, a video object start code.
        for (size_t i = 0; i + 3 <= bytesRead; ++i) {
            if (IsStartCodePrefix(buffer + i) && buffer[i + 3] < 0x20) {
                offset = i;
                break;
            }
        }
    }
    uint32_t localWidth = 0, localHeight = 0, headerSize = 0;
    const int32_t result = ParseVolHeader(buffer + offset, kHeaderBufferBytes - offset,
                                          width ? width : &localWidth,
                                          height ? height : &localHeight, &headerSize);
    if (result < 0) return kHeaderSizeFailed;
    return headerSize + uint32_t(offset);
}

}  // namespace

uint32_t MeasureM4vHeader(const uint8_t *bytes, size_t count, uint32_t *width, uint32_t *height) {
    uint8_t buffer[kHeaderBufferBytes + 1] = {};
    const size_t bytesRead = count < kHeaderBufferBytes ? count : kHeaderBufferBytes;
    if (bytesRead > 0) memcpy(buffer, bytes, bytesRead);
    return MeasureHeaderBuffer(buffer, bytesRead, width, height);
}

uint32_t GetM4vHeaderSize(const char *fileName, uint32_t *width, uint32_t *height) {
    if (fileName == nullptr) return kHeaderSizeFailed;
    FILE *stream = fopen(fileName, "rb");
    if (stream == nullptr) return kHeaderSizeFailed;
    // One spare zeroed byte behind the buffer: the start code search looks
    // one byte past the last byte read, which counts as 0.
    uint8_t *buffer = static_cast<uint8_t *>(malloc(kHeaderBufferBytes + 1));
    if (buffer == nullptr) {
        PrintDiagnostic("Unable to new memory [bitstream]\n");
        fclose(stream);
        return kHeaderSizeNoMemory;
    }
    memset(buffer, 0, kHeaderBufferBytes + 1);
    const size_t bytesRead = fread(buffer, 1, kHeaderBufferBytes, stream);
    fclose(stream);
    const uint32_t size = MeasureHeaderBuffer(buffer, bytesRead, width, height);
    free(buffer);
    return size;
}
