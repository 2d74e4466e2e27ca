#include "bench_support.h"

#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#if MP4CORE_HAVE_LIBAV
extern "C" {
#include <libavformat/avformat.h>
}
#endif

namespace bench_support {

namespace {

bool Exists(const std::string &path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && info.st_size > 0;
}

// ---- A small big-endian atom builder ---------------------------------------

using Bytes = std::vector<uint8_t>;

void Put8(Bytes &out, uint32_t v) { out.push_back(uint8_t(v)); }
void Put16(Bytes &out, uint32_t v) {
    Put8(out, v >> 8);
    Put8(out, v);
}
void Put32(Bytes &out, uint32_t v) {
    Put16(out, v >> 16);
    Put16(out, v);
}
void PutName(Bytes &out, const char *name) { out.insert(out.end(), name, name + 4); }
void PutZeros(Bytes &out, size_t count) { out.insert(out.end(), count, 0); }

Bytes Atom(const char *name, const Bytes &body) {
    Bytes out;
    Put32(out, uint32_t(body.size() + 8));
    PutName(out, name);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes FullAtom(const char *name, uint32_t flags, const Bytes &body) {
    Bytes inner;
    Put32(inner, flags);  // version 0
    inner.insert(inner.end(), body.begin(), body.end());
    return Atom(name, inner);
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

void PutMatrix(Bytes &out) {
    const uint32_t unity[9] = {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};
    for (uint32_t v : unity) Put32(out, v);
}

// A video object layer of 176x144 behind a video object start code, the
// decoder configuration of the track.
const uint8_t kVideoConfig[] = {0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x20, 0x01,
                                0x88, 0x40, 0x06, 0x68, 0x2C, 0x20, 0x90, 0xA2, 0x1F};
const uint32_t kWidth = 176;
const uint32_t kHeight = 144;

// Descriptor: tag, one length byte (all of ours are short), body.
Bytes Descriptor(uint8_t tag, const Bytes &body) {
    Bytes out;
    Put8(out, tag);
    Put8(out, uint32_t(body.size()));
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes Esds() {
    Bytes config(kVideoConfig, kVideoConfig + sizeof kVideoConfig);
    Bytes decoder;
    Put8(decoder, 0x20);           // MPEG-4 visual
    Put8(decoder, 0x11);           // visual stream
    Put8(decoder, 0);              // buffer size, 24 bits
    Put16(decoder, 0x2000);
    Put32(decoder, 1000000);       // max bit rate
    Put32(decoder, 500000);        // average bit rate
    Bytes decoderInfo = Descriptor(0x05, config);
    decoder.insert(decoder.end(), decoderInfo.begin(), decoderInfo.end());
    Bytes es;
    Put16(es, 1);  // ES_ID
    Put8(es, 0);   // flags
    Bytes decoderDescriptor = Descriptor(0x04, decoder);
    Bytes sl = Descriptor(0x06, Bytes{0x02});
    es.insert(es.end(), decoderDescriptor.begin(), decoderDescriptor.end());
    es.insert(es.end(), sl.begin(), sl.end());
    return FullAtom("esds", 0, Descriptor(0x03, es));
}

Bytes Mp4v() {
    Bytes body;
    PutZeros(body, 6);
    Put16(body, 1);  // data reference index
    PutZeros(body, 16);
    Put16(body, kWidth);
    Put16(body, kHeight);
    Put32(body, 0x00480000);
    Put32(body, 0x00480000);
    Put32(body, 0);
    Put16(body, 1);  // frame count
    PutZeros(body, 32);
    Put16(body, 0x18);
    Put16(body, 0xFFFF);
    Bytes esds = Esds();
    body.insert(body.end(), esds.begin(), esds.end());
    return Atom("mp4v", body);
}

// Size of sample i: key frames a few hundred bytes, the others a few dozen,
// varied by a fixed hash so that every run writes the same file.
uint32_t SampleSize(const SyntheticShape &shape, uint32_t i) {
    uint32_t h = i * 2654435761u;
    h ^= h >> 15;
    if (i % shape.keyInterval == 0) return 200 + h % 200;
    return 8 + h % 32;
}

Bytes Moov(const SyntheticShape &shape, uint32_t mdatDataOffset) {
    const uint32_t n = shape.samples;
    const uint32_t duration = n * shape.sampleDelta;
    const uint32_t chunks = (n + shape.samplesPerChunk - 1) / shape.samplesPerChunk;

    Bytes mvhd;
    Put32(mvhd, 0);
    Put32(mvhd, 0);
    Put32(mvhd, shape.timescale);
    Put32(mvhd, duration);
    Put32(mvhd, 0x00010000);
    Put16(mvhd, 0x0100);
    PutZeros(mvhd, 10);
    PutMatrix(mvhd);
    PutZeros(mvhd, 24);
    Put32(mvhd, 2);

    Bytes tkhd;
    Put32(tkhd, 0);
    Put32(tkhd, 0);
    Put32(tkhd, 1);  // track ID
    Put32(tkhd, 0);
    Put32(tkhd, duration);
    PutZeros(tkhd, 8);
    Put16(tkhd, 0);
    Put16(tkhd, 0);
    Put16(tkhd, 0);
    Put16(tkhd, 0);
    PutMatrix(tkhd);
    Put32(tkhd, kWidth << 16);
    Put32(tkhd, kHeight << 16);

    Bytes mdhd;
    Put32(mdhd, 0);
    Put32(mdhd, 0);
    Put32(mdhd, shape.timescale);
    Put32(mdhd, duration);
    Put16(mdhd, 0x55C4);  // "und"
    Put16(mdhd, 0);

    Bytes hdlr;
    Put32(hdlr, 0);
    PutName(hdlr, "vide");
    PutZeros(hdlr, 12);
    const char handlerName[] = "VideoHandler";
    hdlr.insert(hdlr.end(), handlerName, handlerName + sizeof handlerName);

    Bytes vmhd;
    PutZeros(vmhd, 8);

    Bytes dref;
    Put32(dref, 1);
    Bytes url = FullAtom("url ", 1, {});
    dref.insert(dref.end(), url.begin(), url.end());

    Bytes stsd;
    Put32(stsd, 1);
    Bytes entry = Mp4v();
    stsd.insert(stsd.end(), entry.begin(), entry.end());

    Bytes stts;
    Put32(stts, 1);
    Put32(stts, n);
    Put32(stts, shape.sampleDelta);

    Bytes stss;
    Put32(stss, (n + shape.keyInterval - 1) / shape.keyInterval);
    for (uint32_t i = 0; i < n; i += shape.keyInterval) Put32(stss, i + 1);

    Bytes stsc;
    Put32(stsc, 1);
    Put32(stsc, 1);
    Put32(stsc, shape.samplesPerChunk);
    Put32(stsc, 1);

    Bytes stsz;
    Put32(stsz, 0);
    Put32(stsz, n);
    for (uint32_t i = 0; i < n; ++i) Put32(stsz, SampleSize(shape, i));

    Bytes stco;
    Put32(stco, chunks);
    uint32_t offset = mdatDataOffset;
    for (uint32_t i = 0; i < n; ++i) {
        if (i % shape.samplesPerChunk == 0) Put32(stco, offset);
        offset += SampleSize(shape, i);
    }

    Bytes stbl = Atom("stbl", Cat({FullAtom("stsd", 0, stsd), FullAtom("stts", 0, stts),
                                   FullAtom("stss", 0, stss), FullAtom("stsc", 0, stsc),
                                   FullAtom("stsz", 0, stsz), FullAtom("stco", 0, stco)}));
    Bytes minf = Atom("minf", Cat({FullAtom("vmhd", 1, vmhd),
                                   Atom("dinf", FullAtom("dref", 0, dref)), stbl}));
    Bytes mdia = Atom("mdia", Cat({FullAtom("mdhd", 0, mdhd), FullAtom("hdlr", 0, hdlr), minf}));
    Bytes trak = Atom("trak", Cat({FullAtom("tkhd", 3, tkhd), mdia}));
    return Atom("moov", Cat({FullAtom("mvhd", 0, mvhd), trak}));
}

bool WriteSynthetic(const SyntheticShape &shape, const std::string &path) {
    Bytes ftypBody;
    PutName(ftypBody, "isom");
    Put32(ftypBody, 0x200);
    PutName(ftypBody, "isom");
    PutName(ftypBody, "mp41");
    Bytes ftyp = Atom("ftyp", ftypBody);
    // The size of moov does not depend on the offsets in it.
    const size_t moovSize = Moov(shape, 0).size();
    const uint32_t dataOffset = uint32_t(ftyp.size() + moovSize + 8);
    Bytes moov = Moov(shape, dataOffset);

    uint64_t mdatSize = 8;
    for (uint32_t i = 0; i < shape.samples; ++i) mdatSize += SampleSize(shape, i);
    if (dataOffset + mdatSize > 0xFFFFFFFFull) return false;

    std::string temp = path + ".part";
    FILE *out = std::fopen(temp.c_str(), "wb");
    if (out == nullptr) return false;
    Bytes head = Cat({ftyp, moov});
    Put32(head, uint32_t(mdatSize));
    PutName(head, "mdat");
    bool ok = std::fwrite(head.data(), 1, head.size(), out) == head.size();
    // Every sample opens with a video object plane: start code, then the
    // coding type (intra for key frames, predicted otherwise).
    Bytes sample;
    for (uint32_t i = 0; ok && i < shape.samples; ++i) {
        uint32_t size = SampleSize(shape, i);
        sample.assign(size, uint8_t(i));
        sample[0] = 0;
        sample[1] = 0;
        sample[2] = 1;
        sample[3] = 0xB6;
        sample[4] = i % shape.keyInterval == 0 ? 0x00 : 0x40;
        ok = std::fwrite(sample.data(), 1, size, out) == size;
    }
    ok = std::fclose(out) == 0 && ok;
    ok = ok && std::rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) std::remove(temp.c_str());
    return ok;
}

}  // namespace

std::string CacheDir() {
    const char *tmp = std::getenv("TMPDIR");
    std::string dir = std::string(tmp != nullptr ? tmp : "/tmp") + "/mp4core_bench";
    mkdir(dir.c_str(), 0755);
    return dir;
}

std::string LongFixture() {
    std::string dir = CacheDir();
    std::string path = dir + "/long_mpeg4.mp4";
    if (Exists(path)) return path;
    if (std::system("command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null && "
                    "command -v python3 >/dev/null") != 0)
        return "";
    std::string command = std::string("bash '") + MP4CORE_DATA_DIR + "/make_fixtures.sh' --long '" +
                          dir + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) return "";
    return Exists(path) ? path : "";
}

std::string GeneratedFile(const std::string &kind) {
    std::string dir = CacheDir();
    std::string path = dir + "/" + (kind == "pcm" ? "pcm_10min.mov" : kind + "_h264_aac.mp4");
    if (Exists(path)) return path;
    if (std::system("command -v ffmpeg >/dev/null") != 0) return "";
    std::string command = std::string("bash '") + MP4CORE_BENCH_DIR + "/make_bench_files.sh' " +
                          kind + " '" + dir + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) return "";
    return Exists(path) ? path : "";
}

uint32_t ListedSamples(const std::string &path) {
    FILE *listing = std::fopen((path + ".samples").c_str(), "r");
    if (listing == nullptr) return 0;
    char line[256];
    unsigned samples = 0;
    while (samples == 0 && std::fgets(line, sizeof line, listing) != nullptr) {
        unsigned id = 0, timescale = 0;
        char kind[16], codec[32];
        if (std::sscanf(line, "track %u %15s %31s timescale %u samples %u", &id, kind, codec,
                        &timescale, &samples) != 5)
            samples = 0;
    }
    std::fclose(listing);
    return samples;
}

std::string SyntheticFile(const SyntheticShape &shape) {
    // The name carries the shape and a version of the generator, so that a
    // changed generator never reuses an old file.
    std::string path = CacheDir() + "/synthetic_v1_" + std::to_string(shape.samples) + "_" +
                       std::to_string(shape.keyInterval) + "_" +
                       std::to_string(shape.samplesPerChunk) + ".mp4";
    if (Exists(path)) return path;
    return WriteSynthetic(shape, path) ? path : "";
}

std::string TinyFragmentsFile(uint32_t fragments) {
    std::string path = CacheDir() + "/tiny_fragments_" + std::to_string(fragments) + ".mp4";
    if (Exists(path)) return path;
    SyntheticShape one;
    one.samples = 1;
    const std::string temp = path + ".part";
    if (!WriteSynthetic(one, temp)) return "";
    // moof (mfhd, traf (tfhd with default-base-is-moof and the sample's
    // duration, size and flags; trun of one sample with a data offset)),
    // then an mdat of one byte: 89 bytes a fragment.
    Bytes mfhd = Atom("mfhd", {0, 0, 0, 0, 0, 0, 0, 1});
    Bytes tfhdBody = {0x00, 0x02, 0x00, 0x38};
    for (uint32_t word : {1u, 40u, 1u, 0u}) Put32(tfhdBody, word);
    Bytes trunBody = {0x00, 0x00, 0x00, 0x01};
    for (uint32_t word : {1u, 88u}) Put32(trunBody, word);
    Bytes fragment = Cat({Atom("moof", Cat({mfhd, Atom("traf", Cat({Atom("tfhd", tfhdBody),
                                                                 Atom("trun", trunBody)}))})),
                          Atom("mdat", {0x2A})});
    FILE *out = std::fopen(temp.c_str(), "ab");
    bool ok = out != nullptr;
    for (uint32_t i = 0; ok && i < fragments; ++i)
        ok = std::fwrite(fragment.data(), 1, fragment.size(), out) == fragment.size();
    if (out != nullptr) ok = std::fclose(out) == 0 && ok;
    ok = ok && std::rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) std::remove(temp.c_str());
    return ok ? path : "";
}

size_t HeapInUse() {
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

size_t CurrentRss() {
    FILE *statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr) return 0;
    unsigned long pages = 0, resident = 0;
    int got = std::fscanf(statm, "%lu %lu", &pages, &resident);
    std::fclose(statm);
    return got == 2 ? size_t(resident) * size_t(sysconf(_SC_PAGESIZE)) : 0;
}

size_t ResetPeak() {
    // Free heap pages that are still resident would serve new allocations
    // without a change in the resident set: give them back first.
    malloc_trim(0);
    if (FILE *refs = std::fopen("/proc/self/clear_refs", "w")) {
        std::fputs("5", refs);
        std::fclose(refs);
    }
    return CurrentRss();
}

ChildResult RunInChild(const std::function<int64_t()> &work) {
    ChildResult result;
    int fds[2];
    if (pipe(fds) != 0) return result;
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return result;
    }
    if (pid == 0) {
        close(fds[0]);
        int64_t values[2] = {int64_t(ResetPeak()), 0};
        values[1] = work();
        ssize_t written = write(fds[1], values, sizeof values);
        _exit(written == sizeof values ? 0 : 1);
    }
    close(fds[1]);
    int64_t values[2] = {0, 0};
    ssize_t got = read(fds[0], values, sizeof values);
    close(fds[0]);
    int status = 0;
    struct rusage usage;
    if (wait4(pid, &status, 0, &usage) != pid) return result;
    result.ok = got == sizeof values && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    result.baselineRss = size_t(values[0]);
    result.peakRss = size_t(usage.ru_maxrss) * 1024;
    result.value = values[1];
    return result;
}

TimeCollector::TimeCollector()
    : ConsoleReporter(isatty(fileno(stdout)) ? OO_Defaults : OO_Tabular) {}

void TimeCollector::ReportRuns(const std::vector<Run> &runs) {
    // With repetitions the median (reported after the runs) replaces the
    // last run, so that one slow run on a loaded machine does not decide.
    for (const Run &run : runs) {
        if (run.error_occurred || run.iterations == 0) continue;
        if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
        seconds_[run.run_name.str()] = run.real_accumulated_time / double(run.iterations);
    }
    ConsoleReporter::ReportRuns(runs);
}

double TimeCollector::Seconds(const std::string &name) const {
    auto found = seconds_.find(name);
    return found == seconds_.end() ? 0.0 : found->second;
}

std::string Ratio(double numerator, double denominator) {
    if (numerator <= 0 || denominator <= 0) return "n/a";
    char text[32];
    std::snprintf(text, sizeof text, "%.2fx", numerator / denominator);
    return text;
}

#if MP4CORE_HAVE_LIBAV
bool HaveLibav() { return true; }

int64_t LibavReadAll(const std::string &path) {
    AVFormatContext *context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) != 0) return -1;
    AVPacket *packet = av_packet_alloc();
    int64_t count = 0;
    while (av_read_frame(context, packet) >= 0) {
        ++count;
        benchmark::DoNotOptimize(packet->data);
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    return count;
}
#else
bool HaveLibav() { return false; }
int64_t LibavReadAll(const std::string &) { return -1; }
#endif

}  // namespace bench_support
