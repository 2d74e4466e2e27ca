// The output of a fragmented file and the record that holds its state.
// Every header, fragment and index goes behind the last whole atom with
// one positioned write (made durable on request); a write that fails
// leaves the file cut back to that end, where a reader expects it to end.
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "writer/writer.h"

namespace {

// A fragment is written from its head and the data of two tracks.
constexpr int kMaxBlocks = 4;

}  // namespace

FragmentWriter *NewFragmentWriter(int fd, bool sync) {
    FragmentWriter *writer = static_cast<FragmentWriter *>(ZeroAlloc(sizeof(FragmentWriter)));
    if (writer == nullptr) return nullptr;
    writer->Fd = fd;
    writer->Sync = sync ? 1 : 0;
    return writer;
}

void ReleaseFragmentWriter(FragmentWriter *writer) {
    if (writer == nullptr) return;
    for (FragmentTrack &track : writer->Tracks) {
        std::free(track.Frames);
        std::free(track.Bytes);
        std::free(track.Index);
    }
    std::free(writer->Head);
    std::free(writer);
}

int32_t WriteAtFileEnd(FragmentWriter *writer, const iovec *blocks, int count) {
    if (writer->Failed) return kFragmentWriteFailed;
    iovec left[kMaxBlocks];
    int first = 0;
    uint64_t total = 0;
    for (int i = 0; i < count && i < kMaxBlocks; ++i) {
        left[i] = blocks[i];
        total += blocks[i].iov_len;
    }
    count = count < kMaxBlocks ? count : kMaxBlocks;
    // A file-size limit or a full disk takes the write in part and refuses
    // the rest: what a part did is undone below.
    for (uint64_t done = 0; done < total;) {
        const ssize_t n = pwritev(writer->Fd, left + first, count - first, off_t(writer->FileEnd + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            (void)!ftruncate(writer->Fd, off_t(writer->FileEnd));
            writer->Failed = 1;
            return kFragmentWriteFailed;
        }
        done += uint64_t(n);
        for (size_t step = size_t(n); step > 0;) {
            const size_t taken = step < left[first].iov_len ? step : left[first].iov_len;
            left[first].iov_base = static_cast<uint8_t *>(left[first].iov_base) + taken;
            left[first].iov_len -= taken;
            step -= taken;
            if (left[first].iov_len == 0 && first + 1 < count) ++first;
        }
    }
    if (writer->Sync != 0 && fdatasync(writer->Fd) != 0) {
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
