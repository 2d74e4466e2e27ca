// The modern reader against tables that repeat or claim more than the file
// holds, and uncompressed audio read in samples of many frames.
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "mp4core.h"
#include "support/listing.h"
#include "support/mini_mp4.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

struct ModernOpen {
    MP4_local_file *handle = nullptr;
    int32_t result;
    ModernOpen(const char *path, int32_t mode) : result(MP4FileOpenEx(&handle, path, mode, MP4_OPEN_MODERN)) {}
    ~ModernOpen() { MP4FileClose(&handle); }
};

size_t HeapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Every call by number on the first track: count, then place, time, size,
// key flag and bytes of the first samples and the last.
std::string Listing(const Bytes &image) {
    OpenedModern open(image);
    MP4TrackInfo info{};
    if (open.result != 1 || MP4GetTrackInfo(open.handle, 0, &info) != 1) return "no track";
    std::string out = Format("%u samples\n", info.SampleCount);
    for (uint32_t n = 0; n < info.SampleCount; n = n < 8 ? n + 1 : std::max(n + 1, info.SampleCount - 1)) {
        MP4SampleInfo s{};
        MP4Sample *sample = nullptr;
        const int32_t got = MP4GetSampleInfo(open.handle, info.TrackId, info.TrackType, n, &s);
        const int32_t read = MP4ReadSample(open.handle, info.TrackId, info.TrackType, n, &sample);
        out += Format("%u: %d %llu %llu %u %u %u %u %d %08x\n", n, got, (unsigned long long)s.FileOffset,
                      (unsigned long long)s.DecodeTime, s.Size, s.IsKeyFrame, s.DescriptionIndex, s.Duration, read,
                      read == 1 ? Crc32(sample->Data, sample->Size) : 0);
        SampleDataFree(&sample);
    }
    return out;
}

// Of two table atoms of one kind in an "stbl" the first counts, for its
// count and its entries alike: the file reads as it does without the
// second, whatever the second claims (ASan watches the reads).
TEST(ModernHardening, TheFirstOfTwoTablesCounts) {
    for (auto &row : ReadRows("read/two_tables.rows")) {
        row.resize(4);
        SCOPED_TRACE(row[0] + " + " + row[2]);
        const Bytes tail = Image(row[3]);
        const std::string expected = Listing(Cat({MiniFile(row[0]), tail}));
        EXPECT_NE(expected, "no track");
        EXPECT_EQ(Listing(Cat({ReplaceAtom(MiniFile(row[0]), row[1].c_str(), Image(row[2]), true), tail})), expected);
    }
}

// QuickTime's sound description of version 0 counts PCM frames as one
// byte each in "stsz": the real frame is channels x bits / 8. The frames
// are read in samples of up to 1024 frames, never across a chunk.
TEST(ModernHardening, TwosOfOneByteFramesReadsEveryByte) {
    const uint32_t frames = 3000, half = frames / 2, bytes = frames * 4;
    std::string hex;
    for (uint32_t i = 0; i < bytes; ++i) hex += Format("%02x", (i * 7 + i / 256) & 0xFF);
    Bytes image = MiniFile("audio 0 sample " + hex +
                           Format(" entry twos stsz 1,%u stts 1,%u,1 stsc 1,1,%u,1 stco 2,28,%u", frames, frames,
                                  half, 28 + half * 4));
    const size_t entry = FindAtom(image, "twos");
    image[entry + 25] = 2;   // channels
    image[entry + 27] = 16;  // bits
    OpenedModern open(image, MP4_OPEN_MODERN, MP4_TABLE_MARKS);
    ASSERT_EQ(open.result, 1);
    MP4TrackInfo info{};
    ASSERT_EQ(MP4GetTrackInfo(open.handle, 0, &info), 1);
    ASSERT_EQ(info.SampleCount, 4u);
    const uint32_t sizes[] = {4096, 1904, 4096, 1904}, times[] = {0, 1024, 1500, 2524}, durations[] = {1024, 476, 1024, 476};
    Bytes all;
    for (uint32_t n = 0; n < 4; ++n) {
        MP4SampleInfo s{};
        MP4Sample *sample = nullptr;
        ASSERT_EQ(MP4GetSampleInfo(open.handle, info.TrackId, info.TrackType, n, &s), 1);
        ASSERT_EQ(MP4ReadSample(open.handle, info.TrackId, info.TrackType, n, &sample), 1);
        EXPECT_EQ(s.Size, sizes[n]);
        EXPECT_EQ(s.DecodeTime, times[n]);
        EXPECT_EQ(s.Duration, durations[n]);
        all.insert(all.end(), sample->Data, sample->Data + sample->Size);
        SampleDataFree(&sample);
    }
    EXPECT_EQ(all, Bytes(image.begin() + 28, image.begin() + 28 + bytes));
    uint32_t found = 0;
    EXPECT_EQ(MP4FindSample(open.handle, info.TrackId, info.TrackType, 2000, 0, &found), 1);
    EXPECT_EQ(found, 2u);
}

// Sparse files whose constant-size "stsz" claims 2^25 and 2^28 samples of
// one byte each: the open holds no more heap than 16 bytes per byte of
// atoms and 1 MiB, takes well under a second, and the last sample is where
// the tables say. With TableMode 1 the key frame table would pass the
// bound: the track is listed with its count and has no tables.
TEST(SlowModernHardening, SparseConstantSizeFilesOpenWithinTheBound) {
    for (uint32_t samples : {1u << 25, 1u << 28}) {
        SCOPED_TRACE(samples);
        const std::string tables = Format(" no stss stsz 1,%u stts 1,%u,1 stsc 1,1,%u,1 stco 1,", samples, samples, samples);
        const size_t mdat = FindAtom(MiniFile("video 3 moov first" + tables + "0"), "mdat");
        Bytes image = MiniFile("video 3 moov first" + tables + std::to_string(mdat + 8));
        SetU32(image, mdat, samples + 8);
        TempFile file(image);
        ASSERT_EQ(truncate(file.c_str(), off_t(mdat + 8 + samples)), 0);

        const size_t before = HeapInUse();
        const auto start = std::chrono::steady_clock::now();
        ModernOpen open(file.c_str(), MP4_TABLE_MARKS);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        EXPECT_LE(HeapInUse() - before, 16 * image.size() + (1 << 20));
        ASSERT_EQ(open.result, 1);
        MP4SampleInfo last{};
        ASSERT_EQ(MP4GetSampleInfo(open.handle, 1, MP4_TRACK_VIDEO, samples - 1, &last), 1);
        EXPECT_EQ(last.FileOffset, mdat + 8 + samples - 1);
        EXPECT_EQ(last.DecodeTime, samples - 1);
        EXPECT_EQ(last.Size, 1u);

        ModernOpen keyed(file.c_str(), MP4_TABLE_KEYFRAMES);
        MP4TrackInfo info{};
        ASSERT_EQ(MP4GetTrackInfo(keyed.handle, 0, &info), 1);
        EXPECT_EQ(info.SampleCount, samples);
        EXPECT_EQ(MP4GetSampleInfo(keyed.handle, 1, MP4_TRACK_VIDEO, 0, &last), -97);
    }
}

}  // namespace
