#include "support/listing.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tracks/tracks.h"
#include "support/test_support.h"

namespace testing_support {
namespace {

std::string ListTrackNode(const TrackNode *node) {
    if (node == nullptr) return "  no tables\n";
    std::string out = Format("  tables: %u samples, %u key frames, capacity %u, mode %u\n", node->SampleCount,
                             node->KeyFrameCount, node->KeyFrameCapacity, node->TableMode);
    for (uint32_t i = 0; node->SampleRecords != nullptr && i < node->SampleCount; ++i) {
        const SampleRecord &r = node->SampleRecords[i];
        out += Format("  %u: time %u offset %u size %u%s\n", i, r.Time, r.FileOffset, r.Size, r.IsKeyFrame ? " key" : "");
    }
    // The table keeps a zeroed record behind its key frames.
    for (uint32_t k = 0; node->KeyFrameRecords != nullptr && k <= node->KeyFrameCount; ++k)
        out += Format("  key frame %u: sample %u time %u\n", k, node->KeyFrameRecords[k].SampleIndex,
                      node->KeyFrameRecords[k].Time);
    return out;
}

std::string HexText(const uint8_t *bytes, size_t count, size_t limit = 48) {
    std::string out;
    for (size_t i = 0; i < count && i < limit; ++i) out += Format("%02x", bytes[i]);
    return count > limit ? out + Format("+%zu", count - limit) : out;
}

}  // namespace

std::string Format(const char *format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

uint32_t Crc32(const uint8_t *data, size_t size) {
    static uint32_t table[256];
    for (uint32_t n = 0; table[255] == 0 && n < 256; ++n) {
        table[n] = n;
        for (int k = 0; k < 8; ++k) table[n] = (table[n] & 1) ? 0xEDB88320u ^ (table[n] >> 1) : table[n] >> 1;
    }
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

Listing LoadListing(const std::string &path) {
    Listing listing;
    std::ifstream file(path);
    if (!file) listing.error = "cannot open " + path;
    std::vector<unsigned> declared;  // sample count of each track line
    std::string line;
    for (int number = 1; listing.error.empty() && std::getline(file, line); ++number) {
        char kind[8], keys[8];
        ExpectedTrack track;
        ExpectedSample sample;
        unsigned count = 0, key = 0;
        if (line.empty() || line[0] == '#') continue;
        if (std::sscanf(line.c_str(), "track %u %7s %*s timescale %*u samples %u keys %7s", &track.id, kind, &count, keys) == 4) {
            track.type = std::string(kind) == "video" ? 1 : std::string(kind) == "audio" ? 2 : 0;
            track.keys = keys;
            listing.tracks.push_back(track);
            declared.push_back(count);
            if (track.type != 0 && (track.keys == "stss" || track.keys == "vop" || track.keys == "none")) continue;
        } else if (!listing.tracks.empty() && std::sscanf(line.c_str(), "%u %u %u %x", &sample.time, &sample.size, &key, &sample.crc) == 4) {
            sample.key = key != 0;
            listing.tracks.back().samples.push_back(sample);
            continue;
        }
        listing.error = path + ":" + std::to_string(number) + ": bad line";
    }
    for (size_t t = 0; listing.error.empty() && t < listing.tracks.size(); ++t)
        if (listing.tracks[t].samples.size() != declared[t]) listing.error = path + ": a track's count is not its samples'";
    return listing;
}

void ExpectGolden(const std::string &name, const std::string &text) {
    const std::string path = FixturePath(name);
    const Bytes stored = ReadWholeFile(path);
    const std::string golden(stored.begin(), stored.end());
    size_t notes = 0;  // leading "#" lines: notes for the reader, kept
    while (text.rfind("#", 0) != 0 && golden.compare(notes, 1, "#") == 0) {
        const size_t end = golden.find('\n', notes);
        notes = end == std::string::npos ? golden.size() : end + 1;
    }
    const std::string expected = golden.substr(0, notes) + text;
    if (std::getenv("MP4CORE_UPDATE_GOLDEN") != nullptr)
        WriteWholeFile(path, Bytes(expected.begin(), expected.end()));
    else
        EXPECT_EQ(golden, expected) << "golden " << path << " (MP4CORE_UPDATE_GOLDEN=1 rewrites it; read the diff)";
}

std::vector<std::vector<std::string>> ReadRows(const std::string &name) {
    std::ifstream file(FixturePath(name));
    EXPECT_TRUE(file.good()) << name;
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(file, line);) {
        if (line.find_first_not_of(' ') == std::string::npos || line[0] == '#') continue;
        std::istringstream in(line);
        rows.emplace_back();
        for (std::string field; std::getline(in, field, '|');) {
            field.erase(field.find_last_not_of(' ') + 1);
            rows.back().push_back(field.erase(0, field.find_first_not_of(' ')));
        }
    }
    return rows;
}

std::string OneLine(std::string text) {
    for (char &c : text) c = c == '\n' ? '/' : (c < ' ' || c > '~') ? '.' : c;
    return text;
}

std::string ListAtoms(const AtomNode *first, int depth) {
    std::string out;
    for (const AtomNode *node = first; node != nullptr; node = node->NextSibling) {
        const uint32_t head = NodeHeadLength(node);
        out += std::string(size_t(depth) * 2, ' ') +
               Format("[%s] @%llu size %llu", node->AtomName, (unsigned long long)node->AtomOffset, (unsigned long long)node->AtomSize);
        if (node->realStructure != nullptr) {
            out += " head " + HexText(node->realStructure, head);
            const uint8_t *behind = static_cast<const uint8_t *>(GetRecordPointer(node));
            if (behind != nullptr)
                out += " | " + HexText(behind, node->AtomSize > head ? node->AtomSize - head : 0);
        }
        out += "\n" + ListAtoms(node->FirstChild, depth + 1);
    }
    return out;
}

std::string ListTracks(const MP4_local_file *file) {
    std::string out;
    const ReadForm &form = file->read;
    for (const VideoTrackNode *v = form.VideoFirst; v != nullptr; v = v->NextTrack) {
        out += Format("video %u%s: %ux%u, %u samples, timescale %u, duration %u, cursor %d/%d\n", v->TrackId,
                      v == form.VideoCurrent ? " (current)" : "", v->TrackWidth, v->TrackHeight, v->SampleCount,
                      v->Timescale, v->TrackDuration, v->SampleCursor, v->KeyFrameCursor) + ListTrackNode(v->Track);
    }
    for (const AudioTrackNode *a = form.AudioFirst; a != nullptr; a = a->NextTrack) {
        out += Format("audio %u%s: %u samples, timescale %u, duration %u, constant size %u\n", a->TrackId,
                      a == form.AudioCurrent ? " (current)" : "", a->SampleCount, a->Timescale, a->TrackDuration,
                      a->ConstantSampleSize) + ListTrackNode(a->Track);
    }
    for (const OtherTrackNode *o = form.OtherFirst; o != nullptr; o = o->NextTrack)
        out += Format("other %u: type %u%s\n", o->TrackId, o->TrackType,
                      o->Track != nullptr && o->Track->SampleRecords == nullptr ? ", no records" : "");
    if (form.VideoLast != nullptr) out += Format("last video %u\n", form.VideoLast->TrackId);
    if (form.AudioLast != nullptr) out += Format("last audio %u\n", form.AudioLast->TrackId);
    return out;
}

}  // namespace testing_support
