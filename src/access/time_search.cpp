// Searching a table by time: the bisection that GetSample and the seek
// calls share.
#include "access/access.h"

namespace {

// Times are compared as signed 32-bit numbers. The result is the last
// entry at or before `time`: a time between two entries finds the earlier
// one, and among equal times the one the bisection meets first.
template <typename Record>
int32_t SearchTime(const Record *records, uint32_t count, int32_t time) {
    int64_t lo = 0;
    int64_t hi = int64_t(count) - 1;
    int64_t mid = -1;
    bool below = false;
    while (lo <= hi) {
        mid = (lo + hi) / 2;
        int32_t at = int32_t(records[mid].Time);
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

int32_t SearchSampleTime(const SampleRecord *records, uint32_t count, int32_t time) {
    return SearchTime(records, count, time);
}

int32_t SearchKeyFrameTime(const KeyFrameRecord *records, uint32_t count, int32_t time) {
    return SearchTime(records, count, time);
}

uint32_t ChooseSampleAtTime(const TrackNode *node, int32_t time) {
    const uint32_t count = node->SampleCount;
    if (time <= 0) return 0;
    if (time >= int32_t(node->SampleRecords[count - 1].Time)) return count - 1;
    int32_t found = SearchSampleTime(node->SampleRecords, count, time);
    // Times that do not rise can send the search before the first sample.
    return found < 0 ? 0 : uint32_t(found);
}
