// The bytes of an input as they come: a file (which a reader may also scan
// ahead with pread, its descriptor's offset left alone) or standard input.
// Bytes are read in blocks of 64 KiB behind those held and let go from the
// front in runs of at least 256 KiB, so that the held bytes move rarely.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "mux/mux.h"

namespace mux {
namespace {

constexpr size_t kReadBytes = size_t(64) << 10;
constexpr size_t kLetGoBytes = size_t(256) << 10;

}  // namespace

bool OpenByteStream(const char *path, ByteStream *stream) {
    if (std::strcmp(path, "-") == 0) {
        stream->fd = STDIN_FILENO;
    } else {
        stream->fd = open(path, O_RDONLY);
        stream->owned = stream->fd >= 0;
        if (!stream->owned) return false;
    }
    struct stat status;
    stream->seekable = fstat(stream->fd, &status) == 0 && S_ISREG(status.st_mode);
    return true;
}

void CloseByteStream(ByteStream *stream) {
    if (stream->owned) close(stream->fd);
    stream->owned = false;
    stream->fd = -1;
}

bool ReadMore(ByteStream *stream) {
    if (stream->ended) return false;
    const size_t held = stream->bytes.size();
    stream->bytes.resize(held + kReadBytes);
    ssize_t got;
    do {
        got = read(stream->fd, stream->bytes.data() + held, kReadBytes);
    } while (got < 0 && errno == EINTR);
    stream->bytes.resize(held + (got > 0 ? size_t(got) : 0));
    if (got <= 0) {
        stream->ended = true;
        stream->failed = got < 0;
    }
    return got > 0;
}

bool Hold(ByteStream *stream, size_t count) {
    while (stream->bytes.size() < count)
        if (!ReadMore(stream)) return false;
    return true;
}

size_t LetGo(ByteStream *stream, size_t count) {
    if (count < kLetGoBytes) return 0;
    stream->bytes.erase(stream->bytes.begin(), stream->bytes.begin() + long(count));
    stream->consumed += count;
    return count;
}

}  // namespace mux
