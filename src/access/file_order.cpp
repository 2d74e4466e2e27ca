// MP4NextInFileOrder: the samples of every track in the order of their
// file offsets, by a merge of the tracks' own orders. The cursor is a
// heap of one entry per track (its next sample), so it costs a few bytes
// per track and each step a few comparisons, whatever the sample count.
#include <algorithm>
#include <cstdlib>

#include "access/access.h"

namespace {

constexpr int32_t kOrderEnd = 0;
constexpr int32_t kOrderBadArguments = -99;
constexpr int32_t kOrderNotReadHandle = -98;
constexpr int32_t kOrderNoMemory = -97;

// A track's next sample.
struct OrderEntry {
    uint64_t Offset;
    uint32_t Track;   // index among the "trak" atoms
    uint32_t Sample;
    const TrackNode *Node;
};

// The heap's top is the lowest offset, of equal ones the first track.
bool After(const OrderEntry &a, const OrderEntry &b) {
    return a.Offset != b.Offset ? a.Offset > b.Offset : a.Track > b.Track;
}

// The cursor: Count entries behind the record, in one block.
struct FileOrderCursor {
    alignas(OrderEntry) uint32_t Count;
    OrderEntry *Entries() { return reinterpret_cast<OrderEntry *>(this + 1); }
};

// A cursor at the first sample of every track with samples, or null
// without memory.
FileOrderCursor *StartCursor(const MP4_local_file *file) {
    const uint32_t tracks = ListTrackTables(file, nullptr, 0);
    const TrackNode **nodes =
        static_cast<const TrackNode **>(std::calloc(tracks + 1, sizeof(TrackNode *)));
    if (nodes == nullptr) return nullptr;
    ListTrackTables(file, nodes, tracks);
    auto *cursor = static_cast<FileOrderCursor *>(
        std::malloc(sizeof(FileOrderCursor) + size_t(tracks) * sizeof(OrderEntry)));
    if (cursor != nullptr) {
        cursor->Count = 0;
        OrderEntry *entries = cursor->Entries();
        for (uint32_t t = 0; t < tracks; ++t) {
            if (nodes[t] == nullptr || nodes[t]->SampleCount == 0) continue;
            entries[cursor->Count++] = OrderEntry{ViewSample(nodes[t], 0).Offset, t, 0, nodes[t]};
        }
        std::make_heap(entries, entries + cursor->Count, After);
    }
    std::free(nodes);
    return cursor;
}

}  // namespace

int32_t MP4NextInFileOrder(MP4_local_file *file, uint32_t *trackIndex, uint32_t *sampleNumber) {
    if (file == nullptr || trackIndex == nullptr || sampleNumber == nullptr)
        return kOrderBadArguments;
    if (file->Form != HandleForm::Read) return kOrderNotReadHandle;
    ReadForm &form = file->read;
    if (*trackIndex == UINT32_MAX || form.FileOrder == nullptr) {
        std::free(form.FileOrder);
        form.FileOrder = StartCursor(file);
        if (form.FileOrder == nullptr) return kOrderNoMemory;
    }
    auto *cursor = static_cast<FileOrderCursor *>(form.FileOrder);
    OrderEntry *entries = cursor->Entries();
    if (cursor->Count == 0) return kOrderEnd;
    std::pop_heap(entries, entries + cursor->Count, After);
    OrderEntry &next = entries[cursor->Count - 1];
    *trackIndex = next.Track;
    *sampleNumber = next.Sample;
    if (++next.Sample < next.Node->SampleCount) {
        next.Offset = ViewSample(next.Node, next.Sample).Offset;
        std::push_heap(entries, entries + cursor->Count, After);
    } else {
        --cursor->Count;
    }
    return 1;
}
