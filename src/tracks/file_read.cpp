// Positioned reads of a track's file, shared by the key frame scan and the
// sample access calls.
#include <unistd.h>

#include <cerrno>

#include "tracks/tracks.h"

size_t ReadFileAt(FILE *stream, uint64_t offset, uint8_t *bytes, size_t count) {
    const int descriptor = fileno(stream);
    size_t done = 0;
    while (done < count) {
        ssize_t got = pread(descriptor, bytes + done, count - done, off_t(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += size_t(got);
    }
    return done;
}
