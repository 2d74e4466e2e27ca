#include "writer/written_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

namespace writer_test {

namespace {

// Where the children of a container begin, from its first byte.
size_t ChildOffset(const std::string &name) {
    if (name == "stsd" || name == "dref" || name == "mp4s") return 16;
    if (name == "mp4a") return 36;
    if (name == "mp4v") return 86;
    return 8;
}

}  // namespace

long AtomOffset(const Bytes &file, const std::string &path) {
    size_t begin = 0, end = file.size();
    std::string parent;
    size_t start = 0;
    long found = -1;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        std::string part = path.substr(start, slash - start);
        int wanted = 1;
        const size_t hash = part.find('#');
        if (hash != std::string::npos) {
            wanted = std::stoi(part.substr(hash + 1));
            part = part.substr(0, hash);
        }
        if (!parent.empty()) begin += ChildOffset(parent);
        found = -1;
        int seen = 0;
        for (size_t at = begin; at + 8 <= end;) {
            const uint32_t size = Be32At(file, at);
            if (size < 8 || at + size > end) break;
            if (std::memcmp(&file[at + 4], part.data(), 4) == 0 && ++seen == wanted) {
                found = long(at);
                begin = at;
                end = at + size;
                break;
            }
            at += size;
        }
        if (found < 0) return -1;
        parent = part;
        start = slash + 1;
    }
    return found;
}

Bytes FindAtom(const Bytes &file, const std::string &path) {
    const long at = AtomOffset(file, path);
    if (at < 0) return {};
    const uint32_t size = Be32At(file, size_t(at));
    return Bytes(file.begin() + at, file.begin() + at + size);
}

std::vector<uint32_t> TableWords(const Bytes &atom) {
    std::vector<uint32_t> words;
    for (size_t at = 12; at + 4 <= atom.size(); at += 4) words.push_back(Be32At(atom, at));
    return words;
}

WriteSession::WriteSession() {
    EXPECT_EQ(MP4FileNew(&file_, output_.c_str()), 1);
}

WriteSession::~WriteSession() {
    if (file_ != nullptr) {
        testing_support::CaptureStream quiet(stdout);
        MP4FileFlush(file_);
    }
}

int32_t WriteSession::Video(uint32_t width, uint32_t height, const Bytes &config,
                            uint32_t timescale, uint8_t compositionTimes, uint32_t profileLevel,
                            uint16_t timeResolution) {
    return CreateTrack(file_, MP4_TRACK_VIDEO, width, height, timeResolution, timescale,
                       profileLevel, 0, 0, 0, uint32_t(config.size()),
                       config.empty() ? nullptr : config.data(), videoTemp_.c_str(),
                       compositionTimes);
}

int32_t WriteSession::Audio(uint32_t timescale, const Bytes &config, uint32_t profile,
                            uint32_t channels, uint32_t sampleRate) {
    return CreateTrack(file_, MP4_TRACK_AUDIO, 0, 0, 0, timescale, 0, profile, channels,
                       sampleRate, uint32_t(config.size()),
                       config.empty() ? nullptr : config.data(), audioTemp_.c_str(), 0);
}

int32_t WriteSession::Od() {
    return CreateTrack(file_, MP4_TRACK_OD, 0, 0, 0, 1000, 0, 0, 0, 0, 0, nullptr, nullptr, 0);
}

int32_t WriteSession::Scene() {
    return CreateTrack(file_, MP4_TRACK_SCENE, 0, 0, 0, 1000, 0, 0, 0, 0, 0, nullptr, nullptr, 0);
}

int32_t WriteSession::AddVideo(const Bytes &frame, uint32_t time, bool key) {
    return AddVideoFrame(file_, uint32_t(frame.size()), frame.data(), 0, time, key ? 1 : 0, 0);
}

int32_t WriteSession::AddAudio(const Bytes &frame, uint32_t time) {
    return AddAudioFrame(file_, uint32_t(frame.size()), frame.data(), time);
}

Bytes WriteSession::Flush() {
    EXPECT_EQ(MP4FileFlush(file_), 1);
    file_ = nullptr;
    return testing_support::ReadWholeFile(output_.path());
}

Bytes Pattern(size_t count, uint8_t seed) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; ++i) bytes[i] = uint8_t(seed + i * 7);
    return bytes;
}

}  // namespace writer_test
