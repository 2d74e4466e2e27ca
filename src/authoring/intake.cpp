// Frame intake: each frame's bytes go to the track's temp file, its time
// stamp, size, temp file offset and key frame mark to the last block of
// the track's chain, and the track's bit rates are brought up to date.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "authoring/authoring.h"

namespace {

constexpr int32_t kFailed = -99;

// What differs between the two intake calls: the track and counters of
// the handle they use, and the texts of their messages.
struct IntakeKind {
    TrackNode *WriteForm::*track;
    IntakeState WriteForm::*intake;
    size_t fragmentTrack;  // the track's place in a fragmented handle
    const char *call;
    const char *noTrackMessage;
    const char *noBlockMessage;
    const char *shortWriteMessage;
    const char *tooLargeMessage;
    const char *fallingTimeMessage;
};

constexpr IntakeKind kVideoKind = {
    &WriteForm::VideoTrack,
    &WriteForm::VideoIntake,
    0,
    "AddVideoFrame",
    "there is no VideoTrackNode in the input MP4_local_file\n",
    "Can't create Sample and KeyFrame table for VideoTrackNode in AddVideoFrame(...) \n",
    "the size of data written to temp video file is error!\n",
    "the temp video file would pass 4 GiB in AddVideoFrame(...) \n",
    "the time stamp falls below the previous frame's in AddVideoFrame(...) \n"};

constexpr IntakeKind kAudioKind = {
    &WriteForm::AudioTrack,
    &WriteForm::AudioIntake,
    1,
    "AddAudioFrame",
    "there is no AudioTrackNode in the input MP4_local_file\n",
    "Can't create Sample and KeyFrame table for AudiTrackNode in AddAudioFrame(...) \n",
    "the size of data written to temp audio file is error!\n",
    "the temp audio file would pass 4 GiB in AddAudioFrame(...) \n",
    "the time stamp falls below the previous frame's in AddAudioFrame(...) \n"};

// Hangs a new 2000-slot block behind `last` and starts it where the track
// stands now. The rate window starts again at 0 in every block.
TrackNode *OpenBlock(TrackNode *last, IntakeState *intake) {
    TrackNode *chain = last;
    if (AddTrackBlock(&chain, kMediaBlockSlots) != 1) return nullptr;
    TrackNode *added = last->NextBlock;
    added->TrakAtom = last->TrakAtom;
    added->TrackId = last->TrackId;
    added->TrackWidth = last->TrackWidth;
    added->TrackHeight = last->TrackHeight;
    added->TrackType = last->TrackType;
    added->Timescale = last->Timescale;
    added->SampleBase = intake->TotalSamples;
    added->KeyFrameBase = intake->TotalKeyFrames;
    intake->BlockSample = 0;
    intake->BlockKeyFrame = 0;
    intake->LastBlock = added;
    return added;
}

// The last block of the chain. Blocks are only ever hung behind the tail,
// so the walk goes on from the block the intake saw last instead of from
// the head: one step per frame rather than one per block.
TrackNode *LastBlockOf(TrackNode *head, IntakeState *intake) {
    TrackNode *last = intake->LastBlock != nullptr ? intake->LastBlock : head;
    while (last->NextBlock != nullptr) last = last->NextBlock;
    intake->LastBlock = last;
    return last;
}

// The block in front of `last`, or null when `last` is the head. Needed
// only for the first frame of a block, so the walk from the head is rare.
const TrackNode *BlockBefore(const TrackNode *head, const TrackNode *last) {
    if (head == last) return nullptr;
    const TrackNode *block = head;
    while (block->NextBlock != last) block = block->NextBlock;
    return block;
}

// A key frame table holds half a block. A stream with more key frames than
// that in one block gets a table as large as the sample table, which no
// block can outgrow.
bool MakeKeyFrameRoom(TrackNode *block, const IntakeState &intake) {
    if (intake.BlockKeyFrame < block->KeyFrameCapacity) return true;
    const uint32_t capacity = block->SampleCapacity;
    if (intake.BlockKeyFrame >= capacity) return false;
    void *grown = std::realloc(block->KeyFrameRecords, sizeof(KeyFrameRecord) * capacity);
    if (grown == nullptr) return false;
    block->KeyFrameRecords = static_cast<KeyFrameRecord *>(grown);
    block->KeyFrameCapacity = capacity;
    return true;
}

// Float of the product, then cut to a whole number, as the rate has always
// been stored. A product that rounds up to 2^32 wraps to 0.
uint32_t ThroughFloat(uint32_t value) {
    const double rounded = double(float(value));
    return uint32_t(uint64_t(rounded));
}

// The rate window of the last block: two seconds wide, from WindowSecond.
// A frame outside it closes the window, moves it one second on and is
// counted in no window.
void UpdateRateWindow(TrackNode *block, int32_t second, uint32_t frameSize) {
    const int64_t w = block->WindowSecond;
    if (second >= w && second <= w + 1) {
        block->WindowBytes = int32_t(uint32_t(block->WindowBytes) + frameSize);
        return;
    }
    block->WindowSecond = int32_t(uint32_t(block->WindowSecond) + 1);
    if (block->WindowBytes > block->PeakBytes) block->PeakBytes = block->WindowBytes;
    block->WindowBytes = 0;
}

void UpdateBitRates(TrackNode *head, const TrackNode *last, const IntakeState &intake,
                    uint32_t second) {
    if (second == 0) {
        head->AvgBitRate = 0;
        head->MaxBitRate = 0;
        return;
    }
    head->AvgBitRate = (intake.TotalBytes * 8u) / second;
    head->MaxBitRate = ThroughFloat(uint32_t(last->PeakBytes) * 8u);
}

int32_t TakeFrame(MP4_local_file *file, const IntakeKind &kind, const IntakeFrame &frame) {
    if (file == nullptr) {
        OutputDebugStringA("the input parameter for MP4_local_file is empty\n");
        return kFailed;
    }
    TrackNode *head = file->write.*kind.track;
    if (head == nullptr) {
        OutputDebugStringA(kind.noTrackMessage);
        return kFailed;
    }
    if (file->write.Fragments != nullptr)
        return TakeFragmentFrame(file, kind.fragmentTrack, frame, kind.call, kind.fallingTimeMessage);
    IntakeState &intake = file->write.*kind.intake;
    if (intake.TempFile == nullptr || (frame.data == nullptr && frame.size != 0)) {
        OutputDebugStringA(kind.shortWriteMessage);
        return kFailed;
    }
    // Sizes and offsets in the file are 32 bits wide.
    if (frame.size > UINT32_MAX - intake.TotalBytes) {
        OutputDebugStringA(kind.tooLargeMessage);
        return kFailed;
    }

    TrackNode *last = LastBlockOf(head, &intake);
    // Durations are differences of neighbouring time stamps, so they must
    // not fall.
    const SampleRecord *before = nullptr;
    if (intake.BlockSample > 0) {
        before = &last->SampleRecords[intake.BlockSample - 1];
    } else if (const TrackNode *previous = BlockBefore(head, last)) {
        if (previous->SampleCount > 0) before = &previous->SampleRecords[previous->SampleCount - 1];
    }
    if (before != nullptr && frame.timeStamp < before->Time) {
        OutputDebugStringA(kind.fallingTimeMessage);
        return kFailed;
    }
    // A block that could not be opened after the last frame is tried again
    // here, so that no frame ever goes past the end of a table.
    if (intake.BlockSample >= last->SampleCapacity) {
        TrackNode *added = OpenBlock(last, &intake);
        if (added == nullptr) {
            OutputDebugStringA(kind.noBlockMessage);
            return kFailed;
        }
        last = added;
    }
    if (frame.keyFrame && !MakeKeyFrameRoom(last, intake)) {
        OutputDebugStringA(kind.noBlockMessage);
        return kFailed;
    }

    SampleRecord &sample = last->SampleRecords[intake.BlockSample];
    sample.Size = frame.size;
    sample.Time = frame.timeStamp;
    if (frame.hasCompositionOffset) sample.CompositionOffset = frame.compositionOffset;
    sample.TempOffset = intake.TotalBytes;
    if (frame.keyFrame) {
        KeyFrameRecord &key = last->KeyFrameRecords[intake.BlockKeyFrame];
        key.Time = frame.timeStamp;
        key.SampleIndex = intake.TotalSamples;
        ++intake.TotalKeyFrames;
        ++intake.BlockKeyFrame;
        last->KeyFrameCount = intake.BlockKeyFrame;
    }
    ++intake.TotalSamples;
    ++intake.BlockSample;
    intake.TotalBytes += frame.size;
    last->SampleCount = intake.BlockSample;

    // The next block exists before the first frame that needs it, and the
    // window of this frame is already that block's.
    bool blockFailed = false;
    if (intake.TotalSamples % kMediaBlockSlots == 0) {
        TrackNode *added = OpenBlock(last, &intake);
        if (added != nullptr) {
            last = added;
        } else {
            blockFailed = true;
        }
    }

    const uint32_t second = frame.timeStamp / head->Timescale;
    UpdateRateWindow(last, int32_t(second), frame.size);
    UpdateBitRates(head, last, intake, second);

    // The frame is written even when the next block failed, so that the
    // tables and the temp file agree.
    const size_t written =
        frame.size == 0 ? 0 : std::fwrite(frame.data, 1, frame.size, intake.TempFile);
    if (written != frame.size) {
        OutputDebugStringA(kind.shortWriteMessage);
        return kFailed;
    }
    if (blockFailed) {
        OutputDebugStringA(kind.noBlockMessage);
        return kFailed;
    }
    return 1;
}

}  // namespace

int32_t AddVideoFrame(MP4_local_file *file, uint32_t frameSize, const uint8_t *frameData,
                      uint32_t compositionOffset, uint32_t timeStamp, uint32_t keyFrame,
                      uint8_t hasCompositionOffset) {
    const IntakeFrame frame{frameSize, frameData, timeStamp, keyFrame == 1, hasCompositionOffset != 0,
                      compositionOffset};
    return TakeFrame(file, kVideoKind, frame);
}

int32_t AddAudioFrame(MP4_local_file *file, uint32_t frameSize, const uint8_t *frameData,
                      uint32_t timeStamp) {
    const IntakeFrame frame{frameSize, frameData, timeStamp, false, false, 0};
    return TakeFrame(file, kAudioKind, frame);
}
