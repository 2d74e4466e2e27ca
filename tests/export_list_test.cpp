// What the dynamic linker sees of the shared object: the API as plain C
// functions and nothing else, the decoder entry as a weak reference, and
// the soname that applications record when they link.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

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
    "MP4ReadSample", "MP4FindSample", "MP4GetDecoderConfig",
};

std::vector<std::string> OutputLines(const std::string &command) {
    std::vector<std::string> lines;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return lines;
    char line[1024];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        std::string text(line);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
        lines.push_back(text);
    }
    pclose(pipe);
    return lines;
}

// The dynamic symbols of the shared object: name to nm's type letter
// ("T" a defined function, "U" an undefined reference, "w" a weak one).
std::map<std::string, char> DynamicSymbols(const std::string &path) {
    std::map<std::string, char> symbols;
    for (const std::string &text : OutputLines("nm -D '" + path + "'")) {
        size_t space = text.rfind(' ');
        if (space == std::string::npos || space < 2) continue;
        symbols[text.substr(space + 1)] = text[space - 1];
    }
    return symbols;
}

bool IsUndefined(char type) { return type == 'U' || type == 'w' || type == 'v'; }

// Symbols that the toolchain or the sanitizer runtimes put there.
bool IsToolchainSymbol(const std::string &name) {
    for (const char *exact : {"_init", "_fini", "_edata", "_end", "__bss_start"})
        if (name == exact) return true;
    for (const char *prefix : {"__asan", "__ubsan", "__sanitizer", "__lsan"})
        if (name.rfind(prefix, 0) == 0) return true;
    return false;
}

TEST(ExportList, SharedObjectExportsExactlyTheApiAsFunctions) {
    const std::map<std::string, char> symbols = DynamicSymbols(MP4CORE_SHARED_LIBRARY);
    ASSERT_FALSE(symbols.empty()) << "nm -D gave nothing for " << MP4CORE_SHARED_LIBRARY;
    std::set<std::string> exported;
    for (const auto &[name, type] : symbols) {
        if (IsUndefined(type) || IsToolchainSymbol(name)) continue;
        exported.insert(name);
        // Unmangled names in the text section: C functions, not data.
        if (kApi.count(name) != 0) {
            EXPECT_EQ(type, 'T') << name;
        }
    }
    EXPECT_EQ(exported, kApi);
}

TEST(ExportList, DecoderEntryIsOnlyAWeakReference) {
    // A strong reference would keep the library from loading into an
    // application that links no decoder.
    const std::map<std::string, char> symbols = DynamicSymbols(MP4CORE_SHARED_LIBRARY);
    auto decore = symbols.find("decore");
    ASSERT_NE(decore, symbols.end());
    EXPECT_EQ(decore->second, 'w');
}

TEST(ExportList, SonameCarriesTheMajorVersion) {
    std::string soname;
    for (const std::string &line : OutputLines("readelf -d '" MP4CORE_SHARED_LIBRARY "'")) {
        size_t open = line.find("(SONAME)");
        size_t bracket = line.find('[');
        if (open != std::string::npos && bracket != std::string::npos)
            soname = line.substr(bracket + 1, line.find(']') - bracket - 1);
    }
    EXPECT_EQ(soname, "libmp4core.so.1");
}

}  // namespace
