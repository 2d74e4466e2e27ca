// Output forms that several commands print: hex blocks, the CRC-32 of a
// sample's bytes, track type names.
#include <cstdio>

#include "commands.h"
#include "result_text.h"
#include "views.h"

uint32_t Crc32(const uint8_t *data, size_t size) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

const char *TrackTypeName(int32_t type) {
    switch (type) {
    case MP4_TRACK_VIDEO: return "video";
    case MP4_TRACK_AUDIO: return "audio";
    case MP4_TRACK_HINT: return "hint";
    case MP4_TRACK_OD: return "od";
    case MP4_TRACK_SCENE: return "scene";
    default: return "other";
    }
}

void PrintHexBlock(const char *label, const uint8_t *bytes, uint32_t size, int indent) {
    std::printf("%*s%s (%u bytes):", indent, "", label, size);
    for (uint32_t i = 0; i < size; ++i) {
        if (i % 16 == 0)
            std::printf("\n%*s%02X", indent + 2, "", bytes[i]);
        else
            std::printf(" %02X", bytes[i]);
    }
    std::printf("\n");
}

void ReportSampleCall(const char *call, int32_t result, uint32_t trackId, const char *name,
                      const uint32_t *number) {
    char context[64];
    if (number != nullptr)
        std::snprintf(context, sizeof context, "%s track %u sample %u", name, trackId, *number);
    else
        std::snprintf(context, sizeof context, "%s track %u", name, trackId);
    ReportFailure(kSamplesCommand.name, call, result, context);
}
