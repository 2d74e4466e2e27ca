// The driver of the read side: MP4FileOpen reads a file's whole index into
// memory in a fixed order of steps; MP4FileClose releases it.
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"
#include "frame/frame.h"
#include "tracks/tracks.h"

namespace {

// Results of MP4FileOpen, in the order of its checks.
constexpr int32_t kOpenBadPath = -99;
constexpr int32_t kOpenNoMemoryForHandle = -98;
constexpr int32_t kOpenNoMemoryForRoot = -97;
constexpr int32_t kOpenCannotRead = -96;
constexpr int32_t kOpenBadSize = -95;
constexpr int32_t kOpenBadTableMode = -94;
// MP4FileOpenEx: flag bits it doesn't know, checked before anything else.
constexpr int32_t kOpenUnknownFlags = -100;

// Sizes and offsets of the tree are 32 bits and compared as positions of a
// file whose size is a positive long on every platform: 2 GiB and more is
// beyond what the handle can hold.
constexpr long kMaxFileSize = 0x7FFFFFFF;

constexpr uint32_t kKnownOpenFlags = MP4_OPEN_MODERN;

// Release of what steps 2 to 7 made, before there is a tree.
int32_t AbandonOpen(MP4_local_file **file, int32_t result) {
    MP4_local_file *handle = *file;
    if (handle->RootAtom != nullptr) {
        if (handle->RootAtom->FileStream != nullptr) std::fclose(handle->RootAtom->FileStream);
        std::free(handle->RootAtom);
    }
    std::free(handle);
    *file = nullptr;
    return result;
}

template <typename Record>
void ReleaseTrackList(Record *&current, Record *&first, Record *&last) {
    while (first != nullptr) {
        Record *record = first;
        first = record->NextTrack;
        if (record->Track != nullptr) ReleaseTrackNodes(&record->Track);
        std::free(record);
    }
    current = nullptr;
    first = nullptr;
    last = nullptr;
}

}  // namespace

namespace {

// The steps of both readers, in the order of MP4FileOpen's checks. The
// modern reader takes files of any size, reads the tree by its own rules,
// skips the validation (which only reports, on standard output) and builds
// its tracks with the modern loop.
int32_t OpenWith(MP4_local_file **file, const char *path, int32_t tableMode, bool modern) {
    if (file == nullptr) return kOpenBadPath;
    // A path that does not fit FilePath with its terminator is refused like
    // a missing one.
    if (path == nullptr || std::strlen(path) >= kFilePathBytes) {
        *file = nullptr;
        return kOpenBadPath;
    }

    MP4_local_file *handle = static_cast<MP4_local_file *>(ZeroAlloc(sizeof(MP4_local_file)));
    *file = handle;
    if (handle == nullptr) return kOpenNoMemoryForHandle;

    Root_atom *root = static_cast<Root_atom *>(ZeroAlloc(sizeof(Root_atom)));
    if (root == nullptr) return AbandonOpen(file, kOpenNoMemoryForRoot);
    handle->RootAtom = root;
    std::memcpy(root->FilePath, path, std::strlen(path) + 1);

    root->FileStream = std::fopen(path, "rb");
    if (root->FileStream == nullptr) return AbandonOpen(file, kOpenCannotRead);

    if (std::fseek(root->FileStream, 0, SEEK_END) != 0) return AbandonOpen(file, kOpenBadSize);
    const long size = std::ftell(root->FileStream);
    if (size <= 0 || (!modern && size > kMaxFileSize)) return AbandonOpen(file, kOpenBadSize);
    root->FileSize = modern ? uint64_t(size) : uint32_t(size);

    if (tableMode < 1 || tableMode > 3) return AbandonOpen(file, kOpenBadTableMode);
    handle->read.TableMode = tableMode;
    handle->read.Modern = modern ? 1 : 0;

    // The modern reader reads heads and records through the handle's
    // read-ahead window, which the sample reads then go on using.
    ReadAhead **window = modern ? &handle->read.SampleWindow : nullptr;
    if (ReadAtomTree(root, modern ? kModernTreeRules : kClassicTreeRules, window) < 0) {
        MP4FileClose(file);
        return kOpenCannotRead;
    }
    if (!modern) CheckAtomTree(root);  // reports only
    if (AllocTreeRecords(root) != 1) {
        MP4FileClose(file);
        return kOpenBadSize;
    }
    if (modern) {
        ExtractModernTreeRecords(root, window);
        return RunModernTrackLoop(file);
    }
    ExtractTreeRecords(root);
    return RunTrackLoop(file);
}

}  // namespace

int32_t MP4FileOpen(MP4_local_file **file, const char *path, int32_t tableMode) {
    return OpenWith(file, path, tableMode, false);
}

int32_t MP4FileOpenEx(MP4_local_file **file, const char *path, int32_t tableMode,
                      uint32_t flags) {
    if ((flags & ~kKnownOpenFlags) != 0) return kOpenUnknownFlags;
    return OpenWith(file, path, tableMode, (flags & MP4_OPEN_MODERN) != 0);
}

uint32_t MP4FileClose(MP4_local_file **file) {
    if (file == nullptr || *file == nullptr) return 1;
    MP4_local_file *handle = *file;
    ReadForm &form = handle->read;
    ReleaseTrackList(form.VideoCurrent, form.VideoFirst, form.VideoLast);
    ReleaseTrackList(form.AudioCurrent, form.AudioFirst, form.AudioLast);
    ReleaseTrackList(form.OtherCurrent, form.OtherFirst, form.OtherLast);
    // The block of EncryptMp4Iod lives until the next call or the close.
    FreeIfSet(form.IodBuffer);
    form.IodBuffer = nullptr;
    ReleaseReadAhead(&form.SampleWindow);
    std::free(form.FileOrder);

    if (Root_atom *root = handle->RootAtom) {
        if (root->FileStream != nullptr) std::fclose(root->FileStream);
        ReleaseAtomList(root->FirstAtom);
        std::free(root);
    }
    std::free(handle);
    *file = nullptr;
    return 1;
}
