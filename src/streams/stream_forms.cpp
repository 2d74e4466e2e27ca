// The table of stream forms: which form a sample entry format goes out in
// and the converters that make it; and the calls that drive a form.
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "streams/streams.h"

const StreamForm kStreamForms[] = {
    {"avc1", 0, "H.264 Annex B", nullptr, StartAvc, AnnexBSample, nullptr},
    {"avc3", 0, "H.264 Annex B", nullptr, StartAvc, AnnexBSample, nullptr},
    {"hvc1", 0, "HEVC Annex B", nullptr, StartHevc, AnnexBSample, nullptr},
    {"hev1", 0, "HEVC Annex B", nullptr, StartHevc, AnnexBSample, nullptr},
    // Dolby Vision entries carry their base codec's configuration.
    {"dva1", 0, "H.264 Annex B", nullptr, StartAvc, AnnexBSample, nullptr},
    {"dvav", 0, "H.264 Annex B", nullptr, StartAvc, AnnexBSample, nullptr},
    {"dvh1", 0, "HEVC Annex B", nullptr, StartHevc, AnnexBSample, nullptr},
    {"dvhe", 0, "HEVC Annex B", nullptr, StartHevc, AnnexBSample, nullptr},
    // "mp4a" by the object type of its "esds": MPEG-4 AAC, the MPEG-2 AAC
    // profiles (main, LC, SSR), MPEG-2 and MPEG-1 audio.
    {"mp4a", 0x40, "AAC ADTS", nullptr, StartAdts, AdtsSample, nullptr},
    {"mp4a", 0x66, "AAC ADTS", nullptr, StartAdts, AdtsSample, nullptr},
    {"mp4a", 0x67, "AAC ADTS", nullptr, StartAdts, AdtsSample, nullptr},
    {"mp4a", 0x68, "AAC ADTS", nullptr, StartAdts, AdtsSample, nullptr},
    {"mp4a", 0x69, "MPEG audio frames", nullptr, StartRaw, CopySample, nullptr},
    {"mp4a", 0x6B, "MPEG audio frames", nullptr, StartRaw, CopySample, nullptr},
    {".mp3", 0, "MPEG audio frames", nullptr, StartRaw, CopySample, nullptr},
    {"mp4v", 0x20, "MPEG-4 video", nullptr, StartWithConfig, CopySample, nullptr},
    {"s263", 0, "H.263", nullptr, StartRaw, CopySample, nullptr},
    {"samr", 0, "AMR", "#!AMR\n", StartRaw, CopySample, nullptr},
    {"sawb", 0, "AMR-WB", "#!AMR-WB\n", StartRaw, CopySample, nullptr},
    {"ac-3", 0, "AC-3 frames", nullptr, StartRaw, CopySample, nullptr},
    {"ec-3", 0, "E-AC-3 frames", nullptr, StartRaw, CopySample, nullptr},
    {"Opus", 0, "Ogg Opus", nullptr, StartOggOpus, OggOpusSample, FinishOggOpus},
    {"fLaC", 0, "FLAC", nullptr, StartFlac, CopySample, nullptr},
    {"av01", 0, "AV1 IVF", "AV01", StartIvf, Av1IvfSample, nullptr},
    {"dav1", 0, "AV1 IVF", "AV01", StartIvf, Av1IvfSample, nullptr},
    {"vp09", 0, "VP9 IVF", "VP90", StartIvf, IvfSample, nullptr},
    // PCM of every layout (wav.cpp's table says how each is stored).
    {"sowt", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"twos", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"raw ", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"in24", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"in32", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"fl32", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"fl64", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"alaw", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"ulaw", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"lpcm", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"ipcm", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
    {"fpcm", 0, "WAV", nullptr, StartWav, WavSample, FinishWav},
};
const size_t kStreamFormCount = std::size(kStreamForms);

const StreamForm *FindStreamForm(const StreamTrack &track) {
    for (const StreamForm &form : kStreamForms) {
        if (std::memcmp(form.Format, track.Format, 4) != 0) continue;
        if (form.ObjectType == 0 || form.ObjectType == track.Entry.ObjectType) return &form;
    }
    return nullptr;
}

int32_t StartStream(StreamState *state, const StreamForm *form, const StreamTrack &track,
                    StreamBuffer *out) {
    state->Form = form;
    state->Track = track;
    state->Message[0] = '\0';
    return form->Start(state, out);
}

int32_t AddStreamSample(StreamState *state, const StreamSample &sample, StreamBuffer *out) {
    state->Message[0] = '\0';
    const int32_t result = state->Form->Sample(state, sample, out);
    ++state->Samples;
    return result;
}

int32_t FinishStream(StreamState *state, StreamBuffer *out) {
    state->Message[0] = '\0';
    return state->Form->Finish != nullptr ? state->Form->Finish(state, out) : kStreamDone;
}

void EndStream(StreamState *state) {
    std::free(state->AnnexB.ParameterSets);
    std::free(state->Ogg.Body);
    state->AnnexB.ParameterSets = nullptr;
    state->Ogg.Body = nullptr;
}
