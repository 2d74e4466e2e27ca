// Sample and key frame tables of a track: making the blocks, growing the
// key frame table, releasing a chain.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "tracks/tracks.h"

namespace {

// CreateVideoTables
constexpr int32_t kCreated = 1;
constexpr int32_t kCreateNoSamples = -99;
constexpr int32_t kCreateNoMemoryForBlock = -98;
constexpr int32_t kCreateNoMemoryForNode = -97;
constexpr int32_t kCreateVideoNoMemoryForKeyFrames = -96;
constexpr int32_t kCreateVideoNoMemoryForSamples = -95;
constexpr int32_t kCreateVideoBadMode = -94;
// CreateAudioTables
constexpr int32_t kCreateAudioNoMemoryForSamples = -96;

// The block that receives the tables: the node in `holder`, made if the
// holder is empty, or a new block behind the last one of a chain whose
// head already has tables. Null with `code` set when there is no memory.
TrackNode *TableBlock(TrackNode **holder, int32_t *code) {
    if (*holder == nullptr) {
        *holder = static_cast<TrackNode *>(ZeroAlloc(sizeof(TrackNode)));
        if (*holder == nullptr) *code = kCreateNoMemoryForNode;
        return *holder;
    }
    if ((*holder)->SampleCapacity == 0) return *holder;
    TrackNode *last = *holder;
    while (last->NextBlock != nullptr) last = last->NextBlock;
    last->NextBlock = static_cast<TrackNode *>(ZeroAlloc(sizeof(TrackNode)));
    if (last->NextBlock == nullptr) *code = kCreateNoMemoryForBlock;
    return last->NextBlock;
}

SampleRecord *NewSampleTable(int32_t n) {
    return static_cast<SampleRecord *>(std::calloc(size_t(n), sizeof(SampleRecord)));
}

}  // namespace

// The key frame table starts with one zeroed record, the one behind the
// last used record that key frame navigation reads; the fill grows it to
// the key frames the track really has, so that it costs no more than they
// need.
int32_t CreateVideoTables(TrackNode **holder, int32_t n, int32_t mode) {
    if (n < 1) return kCreateNoSamples;
    int32_t code = kCreated;
    TrackNode *block = TableBlock(holder, &code);
    if (block == nullptr) return code;
    block->TableMode = uint32_t(mode);
    if (mode == MP4_TABLE_KEYFRAMES) {
        if (ReserveKeyFrames(block, 1) != 1) return kCreateVideoNoMemoryForKeyFrames;
    } else if (mode != MP4_TABLE_MARKS && mode != MP4_TABLE_MARKS_ALT) {
        return kCreateVideoBadMode;
    }
    block->SampleRecords = NewSampleTable(n);
    if (block->SampleRecords == nullptr) {
        std::free(block->KeyFrameRecords);
        block->KeyFrameRecords = nullptr;
        block->KeyFrameCapacity = 0;
        return kCreateVideoNoMemoryForSamples;
    }
    block->SampleCapacity = uint32_t(n);
    return kCreated;
}

int32_t CreateAudioTables(TrackNode **holder, int32_t n, int32_t mode) {
    if (n < 1) return kCreateNoSamples;
    int32_t code = kCreated;
    TrackNode *block = TableBlock(holder, &code);
    if (block == nullptr) return code;
    block->TableMode = uint32_t(mode);
    block->SampleRecords = NewSampleTable(n);
    if (block->SampleRecords == nullptr) return kCreateAudioNoMemoryForSamples;
    block->SampleCapacity = uint32_t(n);
    block->KeyFrameRecords = nullptr;
    return kCreated;
}

int32_t ReserveKeyFrames(TrackNode *node, uint32_t records) {
    if (records <= node->KeyFrameCapacity) return 1;
    void *grown = std::realloc(node->KeyFrameRecords, size_t(records) * sizeof(KeyFrameRecord));
    if (grown == nullptr) return -1;
    node->KeyFrameRecords = static_cast<KeyFrameRecord *>(grown);
    std::memset(node->KeyFrameRecords + node->KeyFrameCapacity, 0,
                size_t(records - node->KeyFrameCapacity) * sizeof(KeyFrameRecord));
    node->KeyFrameCapacity = records;
    return 1;
}

uint64_t PlanBytes(const TablePlan &plan, bool keyFrameTable) {
    // Records and runs mixed: every stretch of records needs a run too.
    const uint64_t runs = plan.Runs == 0 ? 0 : plan.Runs + plan.RecordRuns;
    uint64_t bytes = plan.Records * sizeof(SampleRecord) + runs * sizeof(SampleRun);
    if (keyFrameTable) bytes += (plan.SyncBound + 1) * sizeof(KeyFrameRecord);
    // The marks: a duration one more, for the track's last record.
    const uint64_t marks = plan.DescriptionMarks + (plan.Records > 0 ? plan.DurationMarks + 1 : 0);
    return bytes + marks * sizeof(SampleMark);
}

namespace {

bool NewMarks(MarkList *list, uint64_t capacity) {
    if (capacity == 0) return true;
    if (capacity > UINT32_MAX) return false;
    list->Marks = static_cast<SampleMark *>(std::calloc(size_t(capacity), sizeof(SampleMark)));
    list->Capacity = list->Marks != nullptr ? uint32_t(capacity) : 0;
    return list->Marks != nullptr;
}

}  // namespace

int32_t CreateModernTables(TrackNode *node, const TablePlan &plan, int32_t mode) {
    node->TableMode = uint32_t(mode);
    const bool video = node->TrackType == MP4_TRACK_VIDEO;
    if (video && mode != MP4_TABLE_KEYFRAMES && mode != MP4_TABLE_MARKS && mode != MP4_TABLE_MARKS_ALT)
        return -1;
    if (video && mode == MP4_TABLE_KEYFRAMES && ReserveKeyFrames(node, 1) != 1) return -1;
    const uint64_t runs = plan.Runs == 0 ? 0 : plan.Runs + plan.RecordRuns;
    if (plan.Records > 0) {
        node->SampleRecords = NewSampleTable(int32_t(plan.Records));
        if (node->SampleRecords == nullptr) return -1;
        node->RecordCapacity = uint32_t(plan.Records);
    }
    if (runs > UINT32_MAX) return -1;
    if (runs > 0) {
        node->Runs = static_cast<SampleRun *>(std::calloc(size_t(runs), sizeof(SampleRun)));
        if (node->Runs == nullptr) return -1;
        node->RunCapacity = uint32_t(runs);
    }
    node->SampleCapacity = uint32_t(plan.Samples);
    const uint64_t durations = plan.Records > 0 ? plan.DurationMarks + 1 : 0;
    return NewMarks(&node->Descriptions, plan.DescriptionMarks) && NewMarks(&node->Durations, durations)
               ? 1
               : -1;
}

int32_t ReleaseTrackNodes(TrackNode **holder) {
    if (holder == nullptr) return 1;
    TrackNode *block = *holder;
    while (block != nullptr) {
        TrackNode *next = block->NextBlock;
        std::free(block->SampleRecords);
        std::free(block->KeyFrameRecords);
        std::free(block->TimeHighs);
        std::free(block->Runs);
        std::free(block->Descriptions.Marks);
        std::free(block->Durations.Marks);
        std::free(block);
        block = next;
    }
    *holder = nullptr;
    return 1;
}
