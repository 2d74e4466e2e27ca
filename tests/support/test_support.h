// Helpers shared by the tests: byte images of atoms built from parts,
// temporary files, captured standard output and standard error, fixtures.
#pragma once

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

namespace testing_support {

using Bytes = std::vector<uint8_t>;

Bytes U8(uint8_t value);
Bytes U16(uint16_t value);              // big-endian
Bytes U32(uint32_t value);              // big-endian
Bytes Zeros(size_t count);
Bytes Text(const std::string &text);    // the characters, no terminator
Bytes Hex(const std::string &hex);      // "00 00 01 B0" -> bytes; spaces ignored
Bytes Cat(const std::vector<Bytes> &parts);
// Bytes in the short notation of tests/data/read/README.md: NAME{...} an
// atom with its size counted, NAME@SIZE{...}, 5 a word, z12, #0A0B, 'text'.
Bytes Image(const std::string &text);

// An atom: 32-bit big-endian size (head included), four-character name,
// then the parts of its body in order.
Bytes Atom(const char *name, std::initializer_list<Bytes> body = {});
// A full atom: size, name, version 0 and flags, then the body.
Bytes FullAtom(const char *name, uint32_t flags, std::initializer_list<Bytes> body = {});
// An atom whose size field says `storedSize` whatever the body holds.
Bytes AtomWithSize(uint32_t storedSize, const char *name, std::initializer_list<Bytes> body = {});
uint32_t GetU32(const Bytes &bytes, size_t at);  // big-endian
void SetU32(Bytes &bytes, size_t at, uint32_t value);
// Where the first atom named `name` at or behind `from` begins (found by its name).
size_t FindAtom(const Bytes &bytes, const char *name, size_t from = 0);
// `image` with its first atom named `name` replaced by `atom` (or followed
// by it, with `behind`), the sizes of the atoms around it changed to match.
Bytes ReplaceAtom(Bytes image, const char *name, const Bytes &atom, bool behind = false);

// A path under the temp folder that does not exist yet; removed (if made)
// when the object goes.
class TempPath {
public:
    explicit TempPath(const std::string &suffix = ".tmp");
    ~TempPath();
    TempPath(const TempPath &) = delete;
    TempPath &operator=(const TempPath &) = delete;
    const std::string &path() const { return path_; }
    const char *c_str() const { return path_.c_str(); }

private:
    std::string path_;
};

void WriteWholeFile(const std::string &path, const Bytes &bytes);

// A file of these contents under the temp folder, removed when the object goes.
struct TempFile : TempPath {
    explicit TempFile(const Bytes &contents = {}, const std::string &suffix = ".mp4") : TempPath(suffix) {
        WriteWholeFile(path(), contents);
    }
};

// Captures what is written to a standard stream (stdout or stderr) from
// construction until Text() is called.
class CaptureStream {
public:
    explicit CaptureStream(FILE *stream);
    ~CaptureStream();
    CaptureStream(const CaptureStream &) = delete;
    CaptureStream &operator=(const CaptureStream &) = delete;
    std::string Text();  // ends the capture and gives what was written

private:
    FILE *stream_;
    int savedFd_ = -1;
    std::string path_;
    bool done_ = false;
    std::string text_;
};

Bytes ReadWholeFile(const std::string &path);
// Path of a file in tests/data.
std::string FixturePath(const std::string &name);
bool FileExists(const std::string &path);
// What a shell command prints on standard output.
std::string RunCommand(const std::string &command);
// Whether ffmpeg and ffprobe are on the path.
bool HaveFfmpeg();

}  // namespace testing_support
