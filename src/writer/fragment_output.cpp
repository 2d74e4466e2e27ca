// The output of a fragmented file and the record that holds its state.
// Every header, fragment and index goes behind the last whole atom with
// one positioned write (made durable on request); a write that fails or
// is taken in part leaves the file cut back to that end, where a reader
// expects the file to end.
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "writer/writer.h"

FragmentWriter *NewFragmentWriter(int fd, bool sync) {
    FragmentWriter *writer = static_cast<FragmentWriter *>(ZeroAlloc(sizeof(FragmentWriter)));
    if (writer == nullptr) return nullptr;
    writer->Fd = fd;
    writer->Sync = sync ? 1 : 0;
    return writer;
}

void ReleaseFragmentWriter(FragmentWriter *writer) {
    if (writer == nullptr) return;
    for (RecordingTrack &track : writer->Tracks) {
        std::free(track.Frames);
        std::free(track.Bytes);
        std::free(track.Index);
    }
    std::free(writer->Head);
    std::free(writer);
}

int32_t WriteAtFileEnd(FragmentWriter *writer, const iovec *blocks, int count) {
    if (writer->Failed) return kFragmentWriteFailed;
    uint64_t total = 0;
    for (int i = 0; i < count; ++i) total += blocks[i].iov_len;
    ssize_t written;
    do {
        written = pwritev(writer->Fd, blocks, count, off_t(writer->FileEnd));
    } while (written < 0 && errno == EINTR);
    // A write to a file is taken in part only when the disk is full or a
    // file-size limit is reached: the part is undone, as after a failed
    // write or sync.
    if (written < 0 || uint64_t(written) != total ||
        (writer->Sync != 0 && fdatasync(writer->Fd) != 0)) {
        (void)!ftruncate(writer->Fd, off_t(writer->FileEnd));
        writer->Failed = 1;
        return kFragmentWriteFailed;
    }
    writer->FileEnd += total;
    return kFragmentDone;
}

void SyncFolderOf(const char *path) {
    // The handle's path fits FilePath, so its folder does.
    char folder[kFilePathBytes] = ".";
    if (const char *slash = std::strrchr(path, '/')) {
        const size_t length = slash == path ? 1 : size_t(slash - path);
        std::memcpy(folder, path, length);
        folder[length] = '\0';
    }
    const int fd = open(folder, O_RDONLY | O_DIRECTORY);
    if (fd < 0) return;
    (void)!fsync(fd);
    close(fd);
}
