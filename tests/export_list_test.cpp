// What the dynamic linker sees of the shared object: the API as plain C
// functions and nothing else, the decoder entry as a weak reference (a
// strong one would keep the library from loading into an application that
// links no decoder), and the soname applications record when they link.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>

#include "support/test_support.h"

namespace {

const std::set<std::string> kApi = {
    "MP4FileOpen",   "MP4FileClose",     "MP4FileNew",         "MP4FileFlush",
    "GetNextSample", "GetSample",        "SampleDataFree",     "MP4freeData",
    "SeekTrack",     "SeekTrackPos",     "NextKeyFrame",       "PrevKeyFrame",
    "Mp4VideoSeek",  "CreateTrack",      "AddVideoFrame",      "AddAudioFrame",
    "RetMp4MediaInfo", "GetFileInfo",    "AAC_EsdsToAdtsHead", "GetM4vHeaderSize",
    "EncryptMp4Iod", "DecryptMp4Iod",
    // Beside the 22: the modern reader and the calls by track and sample
    // number.
    "MP4FileOpenEx", "MP4GetTrackCount", "MP4GetTrackInfo", "MP4GetSampleInfo",
    "MP4ReadSample", "MP4FindSample", "MP4GetDecoderConfig", "MP4GetAtom",
    // The fragmented writer, and the writer of tracks of any format.
    "MP4FileNewEx", "MP4AddTrack", "MP4AddTrackFrom", "MP4WriteSample",
};

TEST(ExportList, ExactlyTheApiAsFunctionsDecoreWeakAndTheSoname) {
    // nm's type letter per dynamic symbol: T a function, U/w/v references.
    std::map<std::string, char> symbols;
    std::istringstream nm(testing_support::RunCommand("nm -D '" MP4CORE_SHARED_LIBRARY "'"));
    for (std::string line; std::getline(nm, line);) {
        const size_t space = line.rfind(' ');
        if (space != std::string::npos && space >= 2) symbols[line.substr(space + 1)] = line[space - 1];
    }
    std::map<std::string, char> exported;
    for (const auto &[name, type] : symbols) {
        const bool toolchain = name == "_init" || name == "_fini" || name == "_edata" ||
                               name == "_end" || name == "__bss_start" ||
                               name.rfind("__asan", 0) == 0 || name.rfind("__ubsan", 0) == 0 ||
                               name.rfind("__sanitizer", 0) == 0 || name.rfind("__lsan", 0) == 0;
        if (type != 'U' && type != 'w' && type != 'v' && !toolchain) exported[name] = type;
    }
    std::map<std::string, char> expected;
    for (const std::string &name : kApi) expected[name] = 'T';
    EXPECT_EQ(exported, expected);
    EXPECT_EQ(symbols.count("decore") ? symbols["decore"] : '-', 'w');

    const std::string dynamic = testing_support::RunCommand("readelf -d '" MP4CORE_SHARED_LIBRARY "'");
    EXPECT_NE(dynamic.find("Library soname: [libmp4core.so.1]"), std::string::npos) << dynamic;
}

}  // namespace
