// The intake of a fragmented handle: each frame is copied and held until
// its fragment is complete, and the cut rule decides where fragments end.
//
// The cut rule follows the leading track (video, else audio). The
// fragment that began at the leading track's time B ends before the first
// of its frames that is a sync sample at B + 1 s or later, or any of its
// frames at B + 2 s or later: that frame's time is the cut T. The fragment
// holds the frames of every track that lie before T. It is complete, and
// written by the call that completes it, once every track has passed T
// (holds a frame at or after T, so that the durations of its frames before
// T are known). A stalled track is waited for until the leading track has
// passed T by 2 s more; the fragment then takes what that track has, and
// its later frames go into later fragments. A track other than the leading
// one that runs ahead holds at most 4 s of frames: then every frame whose
// duration is known goes out. Times of different tracks are compared
// exactly, cross-multiplied by their timescales.
#include <cstdio>
#include <cstring>

#include "authoring/authoring.h"
#include "writer/writer.h"

namespace {

constexpr int32_t kFailed = -99;
// A fragment's data must stay below 2 GiB, whose offsets "trun" holds in
// 31 bits: a frame of 256 MiB or more is refused, and before the frames
// held would pass 1 GiB, or a track would hold 65536 (a run's count),
// every frame whose duration is known goes out.
constexpr uint32_t kMaxFrameBytes = uint32_t(1) << 28;
constexpr size_t kMaxHeldBytes = size_t(1) << 30;
constexpr size_t kMaxHeldFrames = size_t(1) << 16;
// Seconds of the cut rule.
constexpr uint64_t kShortestFragment = 1;
constexpr uint64_t kLongestFragment = 2;
constexpr uint64_t kStallWait = 2;
constexpr uint64_t kLongestHold = 4;
// Each pass of the fragment loop writes what is complete or ends it; a
// frame completes at most a few fragments.
constexpr int kMaxPasses = 8;

using Wide = unsigned __int128;

uint64_t ClockOf(const RecordingTrack &track) { return track.Track->Timescale; }

const PendingFrame &Newest(const RecordingTrack &track) { return track.Frames[track.FrameCount - 1]; }

// Whether time a of a track with clock aClock lies at or after time b of a
// track with clock bClock.
bool AtOrAfter(uint64_t a, uint64_t aClock, uint64_t b, uint64_t bClock) {
    return Wide(a) * bClock >= Wide(b) * aClock;
}

void Report(const char *what, const char *call) {
    char text[160];
    std::snprintf(text, sizeof text, "%s in %s(...) \n", what, call);
    OutputDebugStringA(text);
}

int32_t ReportWrite(int32_t result, const char *call) {
    Report(result == kFragmentNoMemory ? "No memory to write the fragment; a later call tries again"
                                       : "Writing the file failed; it ends at its last whole fragment",
           call);
    return kFailed;
}

// How many of a track's frames go into the fragment that ends before the
// cut (without a cut: wherever the known durations end): those before it
// whose durations are known, which are all but the newest.
size_t FramesBefore(const FragmentWriter &writer, const RecordingTrack &track, bool hasCut,
                    uint64_t cut) {
    if (track.Track == nullptr || track.FrameCount == 0) return 0;
    const size_t known = track.FrameCount - 1;
    if (!hasCut) return known;
    const uint64_t leadClock = ClockOf(writer.Tracks[writer.Leading]);
    size_t count = 0;
    while (count < known && !AtOrAfter(track.Frames[count].Time, ClockOf(track), cut, leadClock))
        ++count;
    return count;
}

bool EndsFragment(const FragmentWriter &writer, const PendingFrame &frame) {
    const uint64_t clock = ClockOf(writer.Tracks[writer.Leading]);
    const uint64_t elapsed = frame.Time - writer.FragmentStart;
    return (frame.Key != 0 && elapsed >= kShortestFragment * clock) ||
           elapsed >= kLongestFragment * clock;
}

// Looks for the cut among the leading track's frames from `from` on.
void FindCut(FragmentWriter &writer, size_t from) {
    const RecordingTrack &lead = writer.Tracks[writer.Leading];
    for (size_t i = from; i < lead.FrameCount && writer.CutPending == 0; ++i) {
        if (!EndsFragment(writer, lead.Frames[i])) continue;
        writer.CutPending = 1;
        writer.CutTime = lead.Frames[i].Time;
    }
}

// Writes the fragment that ends before the cut (without one: at the known
// durations), and begins the next at the leading track's first frame held.
int32_t WriteUpTo(FragmentWriter &writer, bool hasCut, uint64_t cut) {
    const size_t counts[2] = {FramesBefore(writer, writer.Tracks[0], hasCut, cut),
                              FramesBefore(writer, writer.Tracks[1], hasCut, cut)};
    const int32_t written = WriteFragment(&writer, counts);
    if (written != kFragmentDone) return written;
    const RecordingTrack &lead = writer.Tracks[writer.Leading];
    if (lead.FrameCount > 0) writer.FragmentStart = lead.Frames[0].Time;
    writer.CutPending = 0;
    FindCut(writer, 0);
    return kFragmentDone;
}

bool CutComplete(const FragmentWriter &writer) {
    const RecordingTrack &lead = writer.Tracks[writer.Leading];
    if (Newest(lead).Time - writer.CutTime >= kStallWait * ClockOf(lead)) return true;
    for (size_t t = 0; t < 2; ++t) {
        const RecordingTrack &other = writer.Tracks[t];
        if (t == writer.Leading || other.Track == nullptr) continue;
        if (other.FrameCount == 0 ||
            !AtOrAfter(Newest(other).Time, ClockOf(other), writer.CutTime, ClockOf(lead)))
            return false;
    }
    return true;
}

bool HoldsTooLong(const FragmentWriter &writer) {
    for (size_t t = 0; t < 2; ++t) {
        const RecordingTrack &other = writer.Tracks[t];
        if (t == writer.Leading || other.Track == nullptr || other.FrameCount == 0) continue;
        if (Newest(other).Time - other.Frames[0].Time >= kLongestHold * ClockOf(other)) return true;
    }
    return false;
}

int32_t WriteCompleteFragments(FragmentWriter &writer) {
    for (int pass = 0; pass < kMaxPasses; ++pass) {
        int32_t written = kFragmentDone;
        if (writer.CutPending != 0 && CutComplete(writer)) {
            written = WriteUpTo(writer, true, writer.CutTime);
        } else if (HoldsTooLong(writer)) {
            written = WriteUpTo(writer, writer.CutPending != 0, writer.CutTime);
        } else {
            break;
        }
        if (written != kFragmentDone) return written;
    }
    return kFragmentDone;
}

int32_t BeginFile(MP4_local_file *file) {
    FragmentWriter &writer = *file->write.Fragments;
    if (writer.HeaderWritten != 0) return kFragmentDone;
    writer.Leading = writer.Tracks[0].Track != nullptr ? 0 : 1;
    return WriteMovieHeader(file);
}

}  // namespace

int32_t TakeFragmentFrame(MP4_local_file *file, size_t index, const IntakeFrame &frame,
                          const char *call, const char *fallingMessage) {
    FragmentWriter &writer = *file->write.Fragments;
    RecordingTrack &track = writer.Tracks[index];
    if (writer.Failed != 0) {
        Report("The file was given up after a failed write", call);
        return kFailed;
    }
    if (frame.size >= kMaxFrameBytes) {
        Report("The frame is too large for a fragment", call);
        return kFailed;
    }
    if (frame.data == nullptr && frame.size != 0) {
        Report("There are no bytes for the frame", call);
        return kFailed;
    }
    if (track.Started != 0 && frame.timeStamp < track.LastStamp) {
        OutputDebugStringA(fallingMessage);
        return kFailed;
    }
    int32_t written = BeginFile(file);
    if (written == kFragmentDone &&
        (track.FrameCount >= kMaxHeldFrames ||
         writer.Tracks[0].ByteCount + writer.Tracks[1].ByteCount + frame.size > kMaxHeldBytes))
        written = WriteUpTo(writer, false, 0);
    if (written != kFragmentDone) return ReportWrite(written, call);
    if (!GrowRecords(&track.Frames, &track.FrameCapacity, track.FrameCount + 1) ||
        !GrowBlock(reinterpret_cast<void **>(&track.Bytes), &track.ByteCapacity,
                   track.ByteCount + frame.size, 1)) {
        Report("Can't hold the frame for its fragment", call);
        return kFailed;
    }

    if (track.Started == 0) {
        track.Started = 1;
        track.FirstStamp = frame.timeStamp;
    } else {
        track.LastDuration = frame.timeStamp - track.LastStamp;
    }
    track.LastStamp = frame.timeStamp;
    // Audio frames are all sync samples.
    track.Frames[track.FrameCount++] = {
        uint64_t(frame.timeStamp - track.FirstStamp), frame.size,
        frame.hasCompositionOffset ? frame.compositionOffset : 0,
        uint8_t(index == 0 ? frame.keyFrame : true)};
    if (frame.size > 0) std::memcpy(track.Bytes + track.ByteCount, frame.data, frame.size);
    track.ByteCount += frame.size;
    if (index == writer.Leading) FindCut(writer, track.FrameCount - 1);
    written = WriteCompleteFragments(writer);
    return written == kFragmentDone ? 1 : ReportWrite(written, call);
}

int32_t EndFragmentedIntake(MP4_local_file *file) {
    FragmentWriter &writer = *file->write.Fragments;
    if (writer.Failed != 0) return 1;
    constexpr const char *kCall = "MP4FileFlush";
    int32_t written = BeginFile(file);
    if (written == kFragmentDone && writer.CutPending != 0)
        written = WriteUpTo(writer, true, writer.CutTime);
    const size_t all[2] = {writer.Tracks[0].FrameCount, writer.Tracks[1].FrameCount};
    if (written == kFragmentDone) written = WriteFragment(&writer, all);
    if (written == kFragmentDone) written = WriteFragmentIndex(&writer);
    if (written == kFragmentDone) return 1;
    Report(written == kFragmentNoMemory ? "No memory for the last fragment or the index; they are not written"
                                        : "Writing the file failed; it ends at its last whole fragment",
           kCall);
    return kFailed;
}
