// Shared by the media, descriptor and tool tests: expected outputs kept as
// text files under tests/data and compared in one assertion, which shows
// the diff (MP4CORE_UPDATE_GOLDEN=1 rewrites the file instead: read the
// diff before committing it); bit strings; "esds" atoms.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "support/test_support.h"

namespace media_support {

using testing_support::Bytes;

inline std::string ReadText(const std::string &path) {
    const Bytes bytes = testing_support::ReadWholeFile(path);
    return std::string(bytes.begin(), bytes.end());
}

// Leading "#" lines of the file are notes for its reader, kept as they are
// unless the output brings its own.
inline void ExpectGolden(const std::string &name, const std::string &actual) {
    const std::string path = testing_support::FixturePath(name), expected = ReadText(path);
    size_t notes = 0;
    while (actual.rfind("#", 0) != 0 && expected.compare(notes, 1, "#") == 0)
        notes = expected.find('\n', notes) == std::string::npos ? expected.size() : expected.find('\n', notes) + 1;
    if (std::getenv("MP4CORE_UPDATE_GOLDEN") != nullptr) std::ofstream(path, std::ios::binary) << expected.substr(0, notes) << actual;
    else EXPECT_EQ(expected, expected.substr(0, notes) + actual) << "differs from " << path;
}

inline std::string Replace(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) text.replace(at, from.size(), to);
    return text;
}

// A transcript under tests/data: each "$ " line is run by the shell in a
// fresh folder ("mp4core" standing for the tool, {data} for tests/data) and
// followed by its standard output, standard error and exit status; "#"
// lines outside those are notes. The commands come from the file itself:
// a new case is a new "$ " line and a regeneration.
inline void ExpectTranscript(const std::string &name) {
    using testing_support::RunCommand;
    char folder[] = "/tmp/mp4core-transcript-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string data = MP4CORE_TEST_DATA_DIR, run = std::string(folder) + "/.";
    auto section = [](const std::string &head, const std::string &text) {  // marked where no line end closes it
        return text.empty() ? text : head + text + (text.back() == '\n' ? "" : "\n[no line end]\n");
    };
    std::istringstream golden(ReadText(testing_support::FixturePath(name)));
    std::string transcript;
    bool output = false;  // between a command and its exit status
    for (std::string line; std::getline(golden, line);) {
        output = line.rfind("[exit ", 0) == 0 ? false : output;
        if (!output && line.rfind("#", 0) == 0) transcript += line + "\n";
        if (line.rfind("$ ", 0) != 0) continue;
        output = true;
        const std::string command = Replace(Replace(line.substr(2) + " ", "mp4core ", "'" MP4CORE_TOOL "' "), "{data}", data);
        const std::string status = RunCommand("cd " + std::string(folder) + " && { " + command + "; } >.out 2>.err </dev/null; echo $?");
        transcript += line + "\n" + Replace(section("", ReadText(run + "out")) + section("[stderr]\n", ReadText(run + "err")),
                                             data, "{data}") + "[exit " + status.substr(0, status.size() - 1) + "]\n\n";
    }
    RunCommand("rm -rf " + std::string(folder));
    ExpectGolden(name, transcript);
}

// " 0A 1B ...": each byte in hex after a space.
inline std::string HexBytes(const uint8_t *bytes, size_t size) {
    std::string text;
    char two[4];
    for (size_t i = 0; bytes != nullptr && i < size; ++i) snprintf(two, sizeof two, " %02X", bytes[i]), text += two;
    return text;
}

// Bits most significant first; `count` may pass 64, the bits above the value being zeros.
struct BitWriter {
    Bytes bytes;
    size_t bits = 0;
    BitWriter &Put(uint64_t value, uint32_t count) {
        for (uint32_t i = count; i-- > 0; ++bits) {
            if (bits % 8 == 0) bytes.push_back(0);
            if (i < 64 && ((value >> i) & 1)) bytes.back() |= uint8_t(0x80 >> (bits % 8));
        }
        return *this;
    }
};

// Descriptor lengths of an "esds" in the form 80 80 80 nn, by bit.
enum LongForms { kShortForms = 0, kLongEs = 1, kLongDecoder = 2, kLongSpecific = 4 };

// An "esds" atom: ES descriptor, decoder configuration of `objectType` with
// bit rates 128000/96000, and `config` as its decoder specific info (none
// when empty, as FFmpeg writes MPEG-1/2 audio).
inline Bytes Esds(const Bytes &config, int forms = kShortForms, uint8_t objectType = 0x40) {
    using namespace testing_support;
    auto length = [](size_t value, bool longForm) {
        return longForm ? Cat({Hex("80 80 80"), U8(uint8_t(value))}) : U8(uint8_t(value));
    };
    const Bytes specific = config.empty() ? Bytes{} : Cat({U8(5), length(config.size(), forms & kLongSpecific), config});
    const Bytes decoder = Cat({U8(4), length(13 + specific.size(), forms & kLongDecoder), U8(objectType), U8(0x15),
                               Hex("00 18 00"), U32(128000), U32(96000), specific});
    return FullAtom("esds", 0, {U8(3), length(6 + decoder.size(), forms & kLongEs), U16(1), U8(0), decoder, Hex("06 01 02")});
}

// The bytes in a block of exactly their size, so that the sanitizers see a read behind them.
inline std::unique_ptr<uint8_t[]> Block(const Bytes &bytes, size_t length) {
    std::unique_ptr<uint8_t[]> block(new uint8_t[length + 1]);
    memcpy(block.get(), bytes.data(), length);
    return block;
}

inline Bytes AudioConfig(uint32_t objectType, uint32_t frequencyIndex, uint32_t channels) {
    return BitWriter().Put(objectType, 5).Put(frequencyIndex, 4).Put(channels, 4).Put(0, 3).bytes;
}

}  // namespace media_support
