// The tags and chapters of mp4core info: one line each, as MP4GetMetadata
// and MP4GetChapters give them.
#include <cinttypes>
#include <cstdio>
#include <string>

#include "result_text.h"
#include "views.h"

namespace {

// Text on one line: control characters as '?'.
std::string OneLine(const char *text) {
    std::string line(text);
    for (char &c : line)
        if (uint8_t(c) < 0x20 || c == 0x7F) c = '?';
    return line;
}

// ticks of timescale as H:MM:SS.mmm.
std::string Clock(uint64_t ticks, uint32_t timescale) {
    const uint64_t ms = timescale == 0 ? 0 : uint64_t((unsigned __int128)ticks * 1000 / timescale);
    char text[48];
    std::snprintf(text, sizeof text, "%" PRIu64 ":%02u:%02u.%03u", ms / 3600000, unsigned(ms / 60000 % 60),
                  unsigned(ms / 1000 % 60), unsigned(ms % 1000));
    return text;
}

void PrintTag(const MP4Tag &tag) {
    std::printf("    ");
    if (tag.TrackId != 0) std::printf("track %u: ", tag.TrackId);
    std::printf("%s = ", OneLine(tag.Key).c_str());
    switch (tag.Type) {
    case MP4_TAG_TEXT: std::printf("\"%s\" (text", OneLine(reinterpret_cast<const char *>(tag.Value)).c_str()); break;
    case MP4_TAG_INTEGER:
        std::printf("%" PRId64, tag.Integer);
        if (tag.Total != 0) std::printf("/%" PRId64, tag.Total);
        std::printf(" (integer");
        break;
    case MP4_TAG_IMAGE: std::printf("%s, %u bytes (image", tag.Mime, tag.Size); break;
    default: std::printf("%u bytes (binary", tag.Size); break;
    }
    std::printf(", %s)\n", OneLine(tag.Source).c_str());
}

}  // namespace

bool PrintTagsAndChapters(MP4_local_file *file) {
    MP4Tag *tags = nullptr;
    uint32_t count = 0;
    int32_t result = MP4GetMetadata(file, &tags, &count);
    if (result != 1) {
        ReportFailure(kInfoCommand.name, "MP4GetMetadata", result);
        return false;
    }
    std::printf("%u tags\n", count);
    for (uint32_t i = 0; i < count; ++i) PrintTag(tags[i]);
    MP4FreeMetadata(tags);

    MP4Chapter *chapters = nullptr;
    result = MP4GetChapters(file, &chapters, &count);
    if (result != 1) {
        ReportFailure(kInfoCommand.name, "MP4GetChapters", result);
        return false;
    }
    std::printf("%u chapters\n", count);
    for (uint32_t i = 0; i < count; ++i)
        std::printf("    %s to %s \"%s\"\n", Clock(chapters[i].Start, chapters[i].Timescale).c_str(),
                    Clock(chapters[i].End, chapters[i].Timescale).c_str(), OneLine(chapters[i].Title).c_str());
    MP4FreeChapters(chapters);
    return true;
}
