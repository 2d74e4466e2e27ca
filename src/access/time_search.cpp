// Searching a table by time: the bisection that GetSample, the seek calls
// and MP4FindSample share.
#include "access/access.h"

namespace {

// The result is the last entry at or before `time`: a time between two
// entries finds the earlier one, and among equal times the one the
// bisection meets first. `key(i)` gives entry i's time.
template <typename Key>
int32_t SearchTime(uint32_t count, int64_t time, Key key) {
    int64_t lo = 0;
    int64_t hi = int64_t(count) - 1;
    int64_t mid = -1;
    bool below = false;
    while (lo <= hi) {
        mid = (lo + hi) / 2;
        const int64_t at = key(uint32_t(mid));
        if (time < at) {
            hi = mid - 1;
            below = true;
        } else if (time > at) {
            lo = mid + 1;
            below = false;
        } else {
            return int32_t(mid);
        }
    }
    return int32_t(below ? mid - 1 : mid);
}

}  // namespace

// Times are compared as signed 32-bit numbers.
int32_t SearchSampleTime(const SampleRecord *records, uint32_t count, int32_t time) {
    return SearchTime(count, time, [&](uint32_t i) { return int64_t(int32_t(records[i].Time)); });
}

int32_t SearchKeyFrameTime(const KeyFrameRecord *records, uint32_t count, int32_t time) {
    return SearchTime(count, time, [&](uint32_t i) { return int64_t(int32_t(records[i].Time)); });
}

int32_t SearchTrackTime(const TrackNode *node, int64_t time) {
    return SearchTime(node->SampleCount, time,
                      [&](uint32_t i) { return SampleTimeKey(node, i); });
}

int32_t SearchTrackKeyFrames(const TrackNode *node, uint32_t count, int64_t time) {
    if (!node->Modern) return SearchKeyFrameTime(node->KeyFrameRecords, count, int32_t(time));
    return SearchTime(count, time, [&](uint32_t k) {
        return SampleTimeKey(node, node->KeyFrameRecords[k].SampleIndex);
    });
}

uint32_t ChooseSampleAtTime(const TrackNode *node, int64_t time) {
    const uint32_t count = node->SampleCount;
    if (time <= 0) return 0;
    if (time >= SampleTimeKey(node, count - 1)) return count - 1;
    int32_t found = SearchTrackTime(node, time);
    // Times that do not rise can send the search before the first sample.
    return found < 0 ? 0 : uint32_t(found);
}
