#include "support/test_support.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace testing_support {

namespace {

std::string UniquePath(const std::string &suffix) {
    static std::atomic<unsigned> counter{0};
    const char *dir = std::getenv("TMPDIR");
    std::string base = (dir != nullptr && *dir != '\0') ? dir : "/tmp";
    return base + "/mp4core_test_" + std::to_string(getpid()) + "_" +
           std::to_string(counter++) + suffix;
}

Bytes ImageAt(const std::string &text, size_t &at) {
    Bytes out;
    while (at < text.size() && text[at] != '}') {
        const size_t end = std::min(text.find_first_of(" {}", at), text.size());
        const std::string word = text.substr(at, end - at);
        at = end + (end < text.size() && text[end] == ' ');
        if (word.empty()) continue;
        if (std::isdigit(static_cast<unsigned char>(word[0]))) out = Cat({out, U32(uint32_t(std::stoul(word, nullptr, 0)))});
        else if (word[0] == 'z' && word.size() > 1 && std::isdigit(static_cast<unsigned char>(word[1]))) out = Cat({out, Zeros(std::stoul(word.substr(1)))});
        else if (word[0] == '#') out = Cat({out, Hex(word.substr(1))});
        else if (word[0] == '\'') out = Cat({out, Text(word.substr(1, word.size() - 2))});
        else {
            Bytes body;
            if (at < text.size() && text[at] == '{') {
                body = ImageAt(text, ++at);
                ++at;  // the '}'
            }
            std::string name = word.substr(0, 4);
            std::replace(name.begin(), name.end(), '_', ' ');
            out = Cat({out, word.size() > 5 ? AtomWithSize(uint32_t(std::stoul(word.substr(5), nullptr, 0)), name.c_str(), {body})
                                            : Atom(name.c_str(), {body})});
        }
    }
    return out;
}

}  // namespace

Bytes U8(uint8_t value) { return {value}; }
Bytes U16(uint16_t value) { return {uint8_t(value >> 8), uint8_t(value)}; }
Bytes U32(uint32_t value) {
    return {uint8_t(value >> 24), uint8_t(value >> 16), uint8_t(value >> 8), uint8_t(value)};
}
Bytes Zeros(size_t count) { return Bytes(count, 0); }
Bytes Text(const std::string &text) { return Bytes(text.begin(), text.end()); }

uint32_t GetU32(const Bytes &bytes, size_t at) {
    return uint32_t(bytes[at]) << 24 | uint32_t(bytes[at + 1]) << 16 | uint32_t(bytes[at + 2]) << 8 | bytes[at + 3];
}

void SetU32(Bytes &bytes, size_t at, uint32_t value) {
    const Bytes word = U32(value);
    std::copy(word.begin(), word.end(), bytes.begin() + long(at));
}

size_t FindAtom(const Bytes &bytes, const char *name, size_t from) {
    return size_t(std::search(bytes.begin() + long(from), bytes.end(), name, name + 4) - bytes.begin()) - 4;
}

Bytes ReplaceAtom(Bytes image, const char *name, const Bytes &atom, bool behind) {
    const size_t at = FindAtom(image, name), old = GetU32(image, at);
    const Bytes with = behind ? Cat({Bytes(image.begin() + long(at), image.begin() + long(at + old)), atom}) : atom;
    for (size_t p = 0, end = image.size(); p < end && p != at;) {  // down the atoms that hold it
        const uint32_t size = GetU32(image, p);
        if (at <= p || at >= p + size) {
            p += size;
            continue;
        }
        SetU32(image, p, uint32_t(size + with.size() - old));
        end = p + size;
        p += 8;
    }
    image.erase(image.begin() + long(at), image.begin() + long(at + old));
    image.insert(image.begin() + long(at), with.begin(), with.end());
    return image;
}

Bytes Hex(const std::string &hex) {
    Bytes out;
    int high = -1;
    for (char c : hex) {
        if (std::isspace(static_cast<unsigned char>(c))) continue;
        int digit = std::isdigit(static_cast<unsigned char>(c))
                        ? c - '0'
                        : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        if (digit < 0 || digit > 15) throw std::invalid_argument("bad hex digit");
        if (high < 0) {
            high = digit;
        } else {
            out.push_back(uint8_t(high * 16 + digit));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument("odd number of hex digits");
    return out;
}

Bytes Image(const std::string &text) {
    size_t at = 0;
    return ImageAt(text, at);
}

Bytes Cat(const std::vector<Bytes> &parts) {
    Bytes out;
    for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes AtomWithSize(uint32_t storedSize, const char *name, std::initializer_list<Bytes> body) {
    return Cat({U32(storedSize), Bytes(name, name + 4), Cat(body)});
}

// The size is the head's 8 bytes and the body's, counted once the body is built.
Bytes Atom(const char *name, std::initializer_list<Bytes> body) {
    const Bytes inner = Cat(body);
    return AtomWithSize(uint32_t(8 + inner.size()), name, {inner});
}

Bytes FullAtom(const char *name, uint32_t flags, std::initializer_list<Bytes> body) {
    return Atom(name, {U32(flags & 0x00FFFFFFu), Cat(body)});
}

TempPath::TempPath(const std::string &suffix) : path_(UniquePath(suffix)) {}
TempPath::~TempPath() { std::remove(path_.c_str()); }

CaptureStream::CaptureStream(FILE *stream) : stream_(stream), path_(UniquePath(".capture")) {
    std::fflush(stream_);
    savedFd_ = dup(fileno(stream_));
    FILE *target = std::fopen(path_.c_str(), "w");
    if (target == nullptr) throw std::runtime_error("cannot create capture file");
    dup2(fileno(target), fileno(stream_));
    std::fclose(target);
}

std::string CaptureStream::Text() {
    if (!done_) {
        std::fflush(stream_);
        dup2(savedFd_, fileno(stream_));
        close(savedFd_);
        savedFd_ = -1;
        Bytes bytes = ReadWholeFile(path_);
        text_.assign(bytes.begin(), bytes.end());
        std::remove(path_.c_str());
        done_ = true;
    }
    return text_;
}

CaptureStream::~CaptureStream() { Text(); }

Bytes ReadWholeFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteWholeFile(const std::string &path, const Bytes &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
}

std::string FixturePath(const std::string &name) {
    return std::string(MP4CORE_TEST_DATA_DIR) + "/" + name;
}

bool FileExists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

std::string RunCommand(const std::string &command) {
    std::string out;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return "popen failed";
    char buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, got);
    pclose(pipe);
    return out;
}

bool HaveFfmpeg() {
    return std::system("command -v ffmpeg >/dev/null 2>&1 && command -v ffprobe >/dev/null 2>&1") == 0;
}

}  // namespace testing_support
