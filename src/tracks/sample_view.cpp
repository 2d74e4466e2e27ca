// The one view of a track's samples: by number, from the node's records
// or from its runs. Every access call, the track listing and the media
// information read samples through here, and allocate nothing.
#include <algorithm>

#include "tracks/tracks.h"

namespace {

// The run that holds sample `index`: the last one starting at or before it.
const SampleRun *RunOf(const TrackNode *node, uint32_t index) {
    const SampleRun *first = node->Runs;
    const SampleRun *last = first + node->RunCount;
    const SampleRun *after = std::upper_bound(
        first, last, index, [](uint32_t i, const SampleRun &run) { return i < run.FirstSample; });
    return after == first ? first : after - 1;
}

SampleView RecordView(const TrackNode *node, uint32_t record) {
    const SampleRecord &r = node->SampleRecords[record];
    return SampleView{SampleFileOffset(r), node->Modern ? SampleDecodeTime(node, record) : r.Time,
                      r.Size,          node->Modern ? r.CompositionOffset : 0,
                      r.IsKeyFrame,    r.IsSync};
}

// The last mark at or before `sample`, or null.
const SampleMark *MarkAt(const MarkList &list, uint32_t sample) {
    const SampleMark *first = list.Marks;
    const SampleMark *last = first + list.Count;
    const SampleMark *after = std::upper_bound(
        first, last, sample, [](uint32_t i, const SampleMark &m) { return i < m.FirstSample; });
    return after == first ? nullptr : after - 1;
}

uint32_t RecordDuration(const TrackNode *node, uint32_t record) {
    const SampleMark *mark = MarkAt(node->Durations, record);
    if (mark != nullptr && mark->FirstSample == record) return mark->Value;
    if (record + 1 >= node->RecordCount) return 0;  // never left unmarked by the fill
    return uint32_t(SampleDecodeTime(node, record + 1) - SampleDecodeTime(node, record));
}

// Sample `index` of the run that holds it, and its duration.
SampleView RunView(const TrackNode *node, const SampleRun &run, uint32_t index) {
    const uint32_t k = index - run.FirstSample;
    if (run.Group == 0) return RecordView(node, uint32_t(run.FirstOffset) + k);
    const uint64_t before = uint64_t(k) * run.Group;  // units ahead of it in the run
    const uint32_t units = uint32_t(std::min<uint64_t>(run.Group, run.Units - before));
    const uint8_t video = node->TrackType == MP4_TRACK_VIDEO;
    return SampleView{run.FirstOffset + before * run.UnitSize,
                      run.FirstTime + before * run.UnitDuration,
                      units * run.UnitSize,
                      run.CompositionOffset,
                      uint8_t(video & run.IsSync),
                      run.IsSync};
}

uint32_t RunDuration(const TrackNode *node, const SampleRun &run, uint32_t index) {
    const uint32_t k = index - run.FirstSample;
    if (run.Group == 0) return RecordDuration(node, uint32_t(run.FirstOffset) + k);
    const uint64_t before = uint64_t(k) * run.Group;
    const uint64_t units = std::min<uint64_t>(run.Group, run.Units - before);
    return uint32_t(std::min<uint64_t>(units * run.UnitDuration, UINT32_MAX));
}

uint32_t ClassicDuration(const TrackNode *node, uint32_t index) {
    const SampleRecord *records = node->SampleRecords;
    return index + 1 < node->SampleCount ? records[index + 1].Time - records[index].Time : 0;
}

uint16_t DescriptionOf(const SampleMark *mark) {
    if (mark == nullptr) return 1;
    return mark->Value <= UINT16_MAX ? uint16_t(mark->Value) : 0;
}

}  // namespace

SampleWalk StartSampleWalk(const TrackNode *node, uint32_t first) {
    SampleWalk walk{node, first, nullptr, nullptr, nullptr, nullptr};
    if (node->Runs != nullptr) walk.Run = RunOf(node, first);
    if (node->Modern) walk.Description = MarkAt(node->Descriptions, first);
    return walk;
}

namespace {

// The high half in force for record `index`, moving the walk's cursor on.
const TimeHigh *HighAt(const TrackNode *node, const TimeHigh *high, uint32_t index) {
    const TimeHigh *next = high != nullptr ? high + 1 : node->TimeHighs;
    while (next < node->TimeHighs + node->TimeHighCount && next->FirstSample <= index) high = next++;
    return high;
}

// Record `index` of a modern node without runs, as RecordView and
// RecordDuration give it, with cursors in place of their searches.
SampleView WalkRecord(SampleWalk *walk, uint32_t index, uint32_t *duration) {
    const TrackNode *node = walk->Node;
    const SampleRecord *records = node->SampleRecords;
    walk->High = HighAt(node, walk->High, index);
    const uint64_t high = walk->High != nullptr ? walk->High->High : 0;
    const SampleRecord &r = records[index];
    const SampleView sample{SampleFileOffset(r), (high << 32) | r.Time, r.Size,
                            r.CompositionOffset, r.IsKeyFrame, r.IsSync};
    const MarkList &marks = node->Durations;
    const SampleMark *mark = walk->Duration != nullptr ? walk->Duration : marks.Marks;
    while (mark < marks.Marks + marks.Count && mark->FirstSample < index) ++mark;
    walk->Duration = mark;
    if (mark < marks.Marks + marks.Count && mark->FirstSample == index) {
        *duration = mark->Value;
    } else if (index + 1 >= node->RecordCount) {
        *duration = 0;
    } else {
        const TimeHigh *next = HighAt(node, walk->High, index + 1);
        const uint64_t nextTime = (uint64_t(next != nullptr ? next->High : 0) << 32) | records[index + 1].Time;
        *duration = uint32_t(nextTime - sample.Time);
    }
    return sample;
}

}  // namespace

void StepSampleWalk(SampleWalk *walk, MP4SampleInfo *info) {
    const TrackNode *node = walk->Node;
    const uint32_t index = walk->Index++;
    SampleView sample;
    if (!node->Modern) {
        sample = RecordView(node, index);
        sample.IsSync = sample.IsKeyFrame;
        info->Duration = ClassicDuration(node, index);
    } else if (walk->Run == nullptr) {
        sample = WalkRecord(walk, index, &info->Duration);
    } else {
        const SampleRun *last = node->Runs + node->RunCount - 1;
        while (walk->Run < last && index >= walk->Run->FirstSample + RunSamples(*walk->Run))
            ++walk->Run;
        sample = RunView(node, *walk->Run, index);
        info->Duration = RunDuration(node, *walk->Run, index);
    }
    const MarkList &marks = node->Descriptions;
    if (node->Modern) {
        const SampleMark *next = walk->Description != nullptr ? walk->Description + 1 : marks.Marks;
        while (next < marks.Marks + marks.Count && next->FirstSample <= index) walk->Description = next++;
    }
    info->FileOffset = sample.Offset;
    info->DecodeTime = sample.Time;
    info->CompositionOffset = int32_t(sample.CompositionOffset);
    info->Size = sample.Size;
    info->IsKeyFrame = sample.IsSync == 1 ? 1 : 0;
    info->Pad = 0;
    info->DescriptionIndex = DescriptionOf(walk->Description);
}

bool MarkFrom(MarkList *list, uint32_t first, uint32_t value) {
    SampleMark *last = list->Count > 0 ? &list->Marks[list->Count - 1] : nullptr;
    if (last != nullptr && last->FirstSample == first) {
        last->Value = value;
        // Back to what the mark before said: the mark is not needed.
        const uint32_t before = list->Count > 1 ? list->Marks[list->Count - 2].Value : 1;
        if (value == before) --list->Count;
        return true;
    }
    if (value == (last != nullptr ? last->Value : 1)) return true;
    if (list->Count >= list->Capacity) return false;
    list->Marks[list->Count++] = SampleMark{first, value};
    return true;
}

void CloseOpenRecord(TrackNode *node, bool contiguous, uint64_t next) {
    if (!node->RecordOpen) return;
    node->RecordOpen = 0;
    if (contiguous && next == node->OpenEnd) return;
    MarkList &list = node->Durations;
    if (list.Count < list.Capacity)
        list.Marks[list.Count++] = SampleMark{node->RecordCount - 1, node->OpenDuration};
}

bool HasSampleTables(const TrackNode *node) {
    return node != nullptr && (node->SampleRecords != nullptr || node->Runs != nullptr);
}

SampleView ViewSample(const TrackNode *node, uint32_t index) {
    if (node->Runs == nullptr) return RecordView(node, index);
    return RunView(node, *RunOf(node, index), index);
}

uint64_t SumSampleSizes(const TrackNode *node, uint32_t count) {
    uint64_t bytes = 0;
    if (node->Runs == nullptr) {
        for (uint32_t i = 0; i < count; ++i) bytes += node->SampleRecords[i].Size;
        return bytes;
    }
    for (uint32_t r = 0; r < node->RunCount && node->Runs[r].FirstSample < count; ++r) {
        const SampleRun &run = node->Runs[r];
        const uint32_t taken = std::min(RunSamples(run), count - run.FirstSample);
        if (run.Group == 0) {
            for (uint32_t k = 0; k < taken; ++k)
                bytes += node->SampleRecords[uint32_t(run.FirstOffset) + k].Size;
        } else {
            bytes += std::min<uint64_t>(uint64_t(taken) * run.Group, run.Units) * run.UnitSize;
        }
    }
    return bytes;
}

uint64_t SampleDecodeTime(const TrackNode *node, uint32_t index) {
    const TimeHigh *first = node->TimeHighs;
    const TimeHigh *last = first + node->TimeHighCount;
    const TimeHigh *after = std::upper_bound(
        first, last, index, [](uint32_t i, const TimeHigh &h) { return i < h.FirstSample; });
    const uint64_t high = after == first ? 0 : (after - 1)->High;
    return (high << 32) | node->SampleRecords[index].Time;
}

int64_t SampleTimeKey(const TrackNode *node, uint32_t index) {
    if (!node->Modern) return int32_t(node->SampleRecords[index].Time);
    return int64_t(ViewSample(node, index).Time);
}
