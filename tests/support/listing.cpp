#include "support/listing.h"

#include <array>
#include <fstream>
#include <sstream>

namespace testing_support {

namespace {

std::array<uint32_t, 256> MakeCrcTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t n = 0; n < 256; ++n) {
        uint32_t c = n;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[n] = c;
    }
    return table;
}

bool ParseTrackLine(std::istringstream &in, ExpectedTrack &track, size_t &count) {
    std::string kind, word1, word2, word3;
    std::string keys;
    if (!(in >> track.id >> kind >> track.codec >> word1 >> track.timescale >> word2 >> count >>
          word3 >> keys))
        return false;
    if (word1 != "timescale" || word2 != "samples" || word3 != "keys") return false;
    if (kind == "video") {
        track.type = 1;
    } else if (kind == "audio") {
        track.type = 2;
    } else {
        return false;
    }
    if (keys == "stss") {
        track.keys = KeySource::Stss;
    } else if (keys == "none") {
        track.keys = KeySource::None;
    } else if (keys == "vop") {
        track.keys = KeySource::PlaneScan;
    } else {
        return false;
    }
    return true;
}

}  // namespace

uint32_t Crc32(const uint8_t *data, size_t size) {
    static const std::array<uint32_t, 256> table = MakeCrcTable();
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return crc ^ 0xFFFFFFFFu;
}

Listing LoadListing(const std::string &path) {
    Listing listing;
    std::ifstream file(path);
    if (!file) {
        listing.error = "cannot open " + path;
        return listing;
    }
    std::string line;
    int number = 0;
    std::vector<size_t> declared;  // sample count of each track line
    while (std::getline(file, line)) {
        ++number;
        if (line.empty() || line[0] == '#') continue;
        std::istringstream in(line);
        const std::string where = path + ":" + std::to_string(number);
        if (line.compare(0, 6, "track ") == 0) {
            std::string word;
            in >> word;
            ExpectedTrack track;
            size_t count = 0;
            if (!ParseTrackLine(in, track, count)) {
                listing.error = where + ": bad track line";
                return listing;
            }
            listing.tracks.push_back(std::move(track));
            declared.push_back(count);
            continue;
        }
        ExpectedSample sample;
        int key = 0;
        if (listing.tracks.empty() ||
            !(in >> sample.time >> sample.size >> key >> std::hex >> sample.crc)) {
            listing.error = where + ": bad sample line";
            return listing;
        }
        sample.key = key != 0;
        listing.tracks.back().samples.push_back(sample);
    }
    for (size_t t = 0; t < listing.tracks.size(); ++t) {
        if (listing.tracks[t].samples.size() != declared[t]) {
            listing.error = path + ": track " + std::to_string(listing.tracks[t].id) +
                            " declares " + std::to_string(declared[t]) + " samples and lists " +
                            std::to_string(listing.tracks[t].samples.size());
            break;
        }
    }
    return listing;
}

}  // namespace testing_support
