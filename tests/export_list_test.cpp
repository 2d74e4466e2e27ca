// The shared object exports the API and nothing else.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>

namespace {

const std::set<std::string> kApi = {
    "MP4FileOpen",   "MP4FileClose",     "MP4FileNew",         "MP4FileFlush",
    "GetNextSample", "GetSample",        "SampleDataFree",     "MP4freeData",
    "SeekTrack",     "SeekTrackPos",     "NextKeyFrame",       "PrevKeyFrame",
    "Mp4VideoSeek",  "CreateTrack",      "AddVideoFrame",      "AddAudioFrame",
    "RetMp4MediaInfo", "GetFileInfo",    "AAC_EsdsToAdtsHead", "GetM4vHeaderSize",
    "EncryptMp4Iod", "DecryptMp4Iod",
};

// Names of the defined dynamic symbols of the shared object.
std::set<std::string> DefinedDynamicSymbols(const std::string &path) {
    std::set<std::string> names;
    std::string command = "nm -D --defined-only '" + path + "'";
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return names;
    char line[1024];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        std::string text(line);
        text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
        size_t space = text.rfind(' ');
        std::string name = space == std::string::npos ? text : text.substr(space + 1);
        if (!name.empty()) names.insert(name);
    }
    pclose(pipe);
    return names;
}

TEST(ExportList, SharedObjectExportsExactlyTheApi) {
    std::set<std::string> exported = DefinedDynamicSymbols(MP4CORE_SHARED_LIBRARY);
    // Symbols that the toolchain itself puts there are not ours.
    for (const char *toolchain : {"_init", "_fini", "_edata", "_end", "__bss_start"})
        exported.erase(toolchain);
    for (auto it = exported.begin(); it != exported.end();) {
        if (it->rfind("__asan", 0) == 0 || it->rfind("__ubsan", 0) == 0 ||
            it->rfind("__sanitizer", 0) == 0 || it->rfind("__lsan", 0) == 0)
            it = exported.erase(it);
        else
            ++it;
    }
    EXPECT_EQ(exported, kApi);
}

}  // namespace
