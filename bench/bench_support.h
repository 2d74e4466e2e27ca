// What the benchmarks share: the files they run on (the long FFmpeg
// fixture, a synthetic file of a million samples), memory measurement, a
// reporter that keeps each benchmark's time for the summary, and the
// libavformat side of the comparisons.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace bench_support {

// ---- Files -----------------------------------------------------------------

// The folder where generated files are kept between runs.
std::string CacheDir();

// The long FFmpeg fixture (more than 20000 video samples), made by
// tests/data/make_fixtures.sh --long on first use. Empty when FFmpeg or
// python3 is missing.
std::string LongFixture();
// The FFmpeg H.264/AAC files of the modern reader's benchmark, made by
// bench/make_bench_files.sh on first use: "small" (more than 100000 samples
// of 160x120 video and 48 kHz audio) and "hd" (a few hundred 1920x1080
// pictures of about 110 KB), and "pcm" (pcm_10min.mov: ten minutes of
// 48 kHz stereo 16-bit PCM in QuickTime). Empty when FFmpeg is missing or
// fails.
std::string GeneratedFile(const std::string &kind);
// The number of samples of the first track of a generated file's listing
// (PATH.samples), or 0.
uint32_t ListedSamples(const std::string &path);

// Shape of a synthetic file: one MPEG-4 video track with "stts" (one entry),
// "stss", "stsc" (one entry), "stsz" (a table) and "stco", moov in front of
// mdat, all within 32-bit sizes and version 0 atoms.
struct SyntheticShape {
    uint32_t samples = 1000000;
    uint32_t keyInterval = 50;      // a key frame every this many samples
    uint32_t samplesPerChunk = 10;
    uint32_t timescale = 25000;
    uint32_t sampleDelta = 1000;    // 25 samples per second
};

// Writes the file (made once and kept in CacheDir) and gives its path.
std::string SyntheticFile(const SyntheticShape &shape);

// The synthetic file of one sample followed by `fragments` fragments of one
// one-byte sample each (defaults in "tfhd"), made once in the cache folder;
// empty when it can't be written.
std::string TinyFragmentsFile(uint32_t fragments);

// ---- Memory ----------------------------------------------------------------

// Bytes of heap in use now (glibc mallinfo2).
size_t HeapInUse();

// Resident set of this process now, in bytes.
size_t CurrentRss();

// Makes the peak resident set of this process start again from what it
// holds now, with free heap pages given back, and gives that size.
size_t ResetPeak();

// Runs `work` in a child process and gives the child's resident set before
// the work and its peak, in bytes, and the number `work` returned (passed
// back through a pipe).
struct ChildResult {
    bool ok = false;
    size_t baselineRss = 0;
    size_t peakRss = 0;
    int64_t value = 0;
    size_t PeakGrowth() const { return peakRss > baselineRss ? peakRss - baselineRss : 0; }
};
ChildResult RunInChild(const std::function<int64_t()> &work);

// ---- Reporting -------------------------------------------------------------

// The console reporter, keeping the real time per iteration, in seconds, of
// every benchmark by name ("BM_Name/arg"): the median when repeated.
class TimeCollector : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal.
    TimeCollector();
    void ReportRuns(const std::vector<Run> &runs) override;
    // Seconds per iteration, or 0 when the benchmark did not run.
    double Seconds(const std::string &name) const;

private:
    std::map<std::string, double> seconds_;
};

// "1.83x" for a/b; "n/a" when either is missing.
std::string Ratio(double numerator, double denominator);

// ---- libavformat -------------------------------------------------------------

bool HaveLibav();
// Opens with avformat_open_input and reads every packet with av_read_frame.
// Gives the number of packets, or -1 when the file does not open.
int64_t LibavReadAll(const std::string &path);

}  // namespace bench_support
