// Searching a table by time: the bisection that GetSample, the seek calls
// and MP4FindSample share.
#include <algorithm>

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

// ---- On the presentation timeline --------------------------------------------

namespace {

int64_t SaturatingAdd(int64_t a, int64_t b) {
    int64_t sum;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return b > 0 ? INT64_MAX : INT64_MIN;
}

int64_t PresentationKey(const TrackNode *node, uint32_t index) {
    const SampleView sample = ViewSample(node, index);
    const int64_t decode = node->Modern ? int64_t(sample.Time) : int64_t(int32_t(sample.Time));
    return SaturatingAdd(decode, int32_t(sample.CompositionOffset));
}

// One walk over the samples: the spread of composition offsets and the
// sample presented first.
void LearnSpread(TrackNode *node) {
    int32_t least = 0, most = 0;
    int64_t firstKey = INT64_MAX;
    for (uint32_t i = 0; i < node->SampleCount; ++i) {
        const int32_t offset = int32_t(ViewSample(node, i).CompositionOffset);
        least = i == 0 ? offset : std::min(least, offset);
        most = i == 0 ? offset : std::max(most, offset);
        const int64_t key = PresentationKey(node, i);
        if (key < firstKey) {
            firstKey = key;
            node->FirstPresented = i;
        }
    }
    node->LeastComposition = least;
    node->MostComposition = most;
    node->SpreadKnown = 1;
}

}  // namespace

uint32_t SearchPresentation(TrackNode *node, int64_t mediaTime, uint64_t delay, uint64_t time) {
    if (node->SpreadKnown == 0) LearnSpread(node);
    if (time < delay) return node->FirstPresented;
    const int64_t wanted = SaturatingAdd(int64_t(std::min<uint64_t>(time - delay, INT64_MAX)),
                                         std::max<int64_t>(mediaTime, 0));
    // A sample decoded after wanted less the least offset is presented after
    // wanted: the search starts at the last one decoded at or before that.
    const int64_t limit = SaturatingAdd(wanted, -int64_t(node->LeastComposition));
    int64_t at = SearchTrackTime(node, limit);
    while (at + 1 < int64_t(node->SampleCount) && SampleTimeKey(node, uint32_t(at + 1)) <= limit)
        ++at;
    // Back in decoding order, until no earlier sample can be presented
    // later than the best so far: the track's reorder depth.
    int64_t best = -1, bestKey = 0;
    for (; at >= 0; --at) {
        const int64_t decode = SampleTimeKey(node, uint32_t(at));
        if (best >= 0 && SaturatingAdd(decode, node->MostComposition) <= bestKey) break;
        const int64_t key = PresentationKey(node, uint32_t(at));
        if (key <= wanted && (best < 0 || key > bestKey)) {
            best = at;
            bestKey = key;
        }
    }
    return best >= 0 ? uint32_t(best) : node->FirstPresented;
}
