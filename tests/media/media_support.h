// Shared by the media, descriptor and tool tests: expected outputs kept as
// text files under tests/data and compared in one assertion, which shows
// the diff (MP4CORE_UPDATE_GOLDEN=1 rewrites the file instead: read the
// diff before committing it); transcripts of commands; inputs in blocks of
// their exact size.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/listing.h"
#include "support/test_support.h"

namespace media_support {

using testing_support::Bytes;
using testing_support::ExpectGolden;

inline std::string ReadText(const std::string &path) {
    const Bytes bytes = testing_support::ReadWholeFile(path);
    return std::string(bytes.begin(), bytes.end());
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

// The files of a folder under tests/data, by name.
inline std::vector<std::string> DataFiles(const std::string &folder) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(testing_support::FixturePath(folder)))
        names.push_back(folder + "/" + entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// " 0A 1B ...": each byte in hex after a space.
inline std::string HexBytes(const uint8_t *bytes, size_t size) {
    std::string text;
    char two[4];
    for (size_t i = 0; bytes != nullptr && i < size; ++i) snprintf(two, sizeof two, " %02X", bytes[i]), text += two;
    return text;
}

// The bytes in a block of exactly their size, so that the sanitizers see a read behind them.
inline std::unique_ptr<uint8_t[]> Block(const Bytes &bytes, size_t length) {
    std::unique_ptr<uint8_t[]> block(new uint8_t[length + 1]);
    if (length != 0) memcpy(block.get(), bytes.data(), length);  // an empty vector may have no data
    return block;
}

}  // namespace media_support
