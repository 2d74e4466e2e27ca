// Expected outputs kept as text files under tests/data: a test builds its
// whole output and compares it in one assertion (a failure shows the diff).
// With MP4CORE_UPDATE_GOLDEN=1 the file is rewritten instead; read the
// diff before committing it.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "support/test_support.h"

inline std::string ReadText(const std::string &path) {
    const testing_support::Bytes bytes = testing_support::ReadWholeFile(path);
    return std::string(bytes.begin(), bytes.end());
}

// " 0A 1B ...": the bytes in hex, each after a space.
inline std::string HexBytes(const uint8_t *bytes, size_t size) {
    std::string text;
    char two[4];
    for (size_t i = 0; bytes != nullptr && i < size; ++i) snprintf(two, sizeof two, " %02X", bytes[i]), text += two;
    return text;
}

inline void ExpectGolden(const std::string &name, const std::string &actual) {
    const std::string path = testing_support::FixturePath(name);
    if (std::getenv("MP4CORE_UPDATE_GOLDEN") != nullptr) {
        std::ofstream(path, std::ios::binary) << actual;
        return;
    }
    EXPECT_EQ(ReadText(path), actual) << "differs from " << path;
}
