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

void SampleErrors::Add(uint32_t number, int32_t result) {
    if (shown_ < kShownErrors) {
        ++shown_;
        std::printf("%u %s %u error %d\n", trackId_, name_, number, int(result));
        ReportSampleCall(call_, result, trackId_, name_, &number);
        return;
    }
    Tally *tally = nullptr;
    for (Tally &t : tallies_)
        if (t.result == result) tally = &t;
    if (tally == nullptr) tally = &tallies_.emplace_back(Tally{result, 0, {}});
    if (tally->count < kSummaryNumbers) tally->numbers[tally->count] = number;
    ++tally->count;
}

SampleErrors::~SampleErrors() {
    for (const Tally &t : tallies_) {
        std::printf("# track %u %s: %llu more samples unreadable (", trackId_, name_,
                    static_cast<unsigned long long>(t.count));
        for (uint64_t i = 0; i < t.count && i < kSummaryNumbers; ++i)
            std::printf(i == 0 ? "%u" : ", %u", t.numbers[i]);
        std::printf("%s): error %d\n", t.count > kSummaryNumbers ? ", ..." : "", int(t.result));
        char context[96];
        std::snprintf(context, sizeof context, "%s track %u, %llu more samples", name_, trackId_,
                      static_cast<unsigned long long>(t.count));
        ReportFailure(kSamplesCommand.name, call_, t.result, context);
    }
}
