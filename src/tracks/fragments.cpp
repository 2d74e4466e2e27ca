// Fragments on the modern path: the samples of the file's "moof" atoms,
// appended in file order to the tables of their tracks. A track fragment
// ("traf") names its track in "tfhd"; each of its runs ("trun") gives
// samples whose fields come from the run's entries, else the defaults of
// "tfhd", else those of the track's "trex". Fragments are read once, at
// the open.
#include <algorithm>

#include "tracks/tracks.h"

namespace {

// What a sample takes when neither its run nor its "tfhd" says.
struct SampleDefaults {
    uint32_t Duration = 0;
    uint32_t Size = 0;
    uint32_t Flags = 0;
};

// A track fragment header: the track, where its data is counted from, and
// its defaults.
struct FragmentHeader {
    uint32_t TrackId = 0;
    uint32_t Flags = 0;
    bool HasBase = false;
    uint64_t Base = 0;
    SampleDefaults Defaults;
};

// One run as its record holds it: the sample count, where its data begins
// and the place of each field in its entries (-1: the entries don't hold
// it).
struct RunView {
    uint32_t Count = 0;
    const uint8_t *Entries = nullptr;
    uint32_t EntrySize = 0;
    int32_t DurationAt = -1;
    int32_t SizeAt = -1;
    int32_t FlagsAt = -1;
    int32_t CompositionAt = -1;
    bool HasDataOffset = false;
    int32_t DataOffset = 0;
    bool HasFirstFlags = false;
    uint32_t FirstFlags = 0;
};

// The layouts of "tfhd" and "trun", looked up once for a whole walk.
struct FragmentLayouts {
    AtomSchema Header{};
    AtomSchema Run{};
    FragmentLayouts() {
        GetAtomSchemaByName("tfhd", &Header, kModernReader);
        GetAtomSchemaByName("trun", &Run, kModernReader);
    }
};

// The version and flags of a "tfhd" or "trun" record, which the modern
// reader makes at least as long as the atom's fixed head.
uint32_t FlagsOf(const AtomNode *node) {
    return GetBE32(node->realStructure, field::kVersionFlags) & 0xFFFFFF;
}

// The flagged field `flag` of a record, or `fallback` when the flags leave
// it out. Records hold the longest head their atom can have, so every
// offset the catalogue gives lies inside them.
uint32_t FlaggedWord(const AtomNode *node, const AtomSchema &schema, uint32_t flags,
                     uint32_t flag, uint32_t fallback) {
    const int32_t at = FlaggedFieldOffset(schema, flags, flag, false);
    return at < 0 ? fallback : GetBE32(node->realStructure, size_t(at));
}

// The track fragment header: track, base, and its defaults over those of
// the track's "trex" (given once the track is known).
const AtomNode *FindHeader(const AtomNode *traf) {
    const AtomNode *tfhd = FindChild(traf, "tfhd");
    return tfhd != nullptr && tfhd->realStructure != nullptr ? tfhd : nullptr;
}

void ReadHeader(const AtomNode *tfhd, const AtomSchema &schema, FragmentHeader *header) {
    const uint32_t flags = FlagsOf(tfhd);
    header->TrackId = GetBE32(tfhd->realStructure, field::kTfhdTrackId);
    header->Flags = flags;
    const int32_t base = FlaggedFieldOffset(schema, flags, flag::kTfhdBaseDataOffset, false);
    header->HasBase = base >= 0;
    if (header->HasBase) header->Base = GetBE64(tfhd->realStructure, size_t(base));
}

SampleDefaults DefaultsOf(const AtomNode *tfhd, const AtomSchema &schema,
                          const SampleDefaults &track) {
    const uint32_t flags = FlagsOf(tfhd);
    SampleDefaults defaults;
    defaults.Duration = FlaggedWord(tfhd, schema, flags, flag::kTfhdDefaultDuration, track.Duration);
    defaults.Size = FlaggedWord(tfhd, schema, flags, flag::kTfhdDefaultSize, track.Size);
    defaults.Flags = FlaggedWord(tfhd, schema, flags, flag::kTfhdDefaultFlags, track.Flags);
    return defaults;
}

// A run whose samples can be placed: its entries loaded (they lie inside
// its atom), or, without per-sample fields, a count of samples that the
// file could hold at one byte each or `defaultSize` bytes each. False for
// any other run: it and the runs behind it in its track fragment are left
// out, since where their data lies is no longer known.
bool ViewRun(const AtomNode *trun, const AtomSchema &schema, uint64_t fileSize,
             uint32_t defaultSize, RunView *run) {
    if (trun->realStructure == nullptr) return false;
    const uint8_t *record = trun->realStructure;
    const uint32_t flags = FlagsOf(trun);
    run->Count = GetBE32(record, field::kTrunSampleCount);
    run->EntrySize = ModernEntrySize(schema, record[field::kVersionFlags], flags);
    run->Entries = static_cast<const uint8_t *>(GetRecordPointer(trun));
    run->DurationAt = FlaggedFieldOffset(schema, flags, flag::kTrunDuration, true);
    run->SizeAt = FlaggedFieldOffset(schema, flags, flag::kTrunSize, true);
    run->FlagsAt = FlaggedFieldOffset(schema, flags, flag::kTrunFlags, true);
    run->CompositionAt = FlaggedFieldOffset(schema, flags, flag::kTrunCompositionOffset, true);
    const int32_t dataOffset = FlaggedFieldOffset(schema, flags, flag::kTrunDataOffset, false);
    run->HasDataOffset = dataOffset >= 0;
    if (run->HasDataOffset) run->DataOffset = int32_t(GetBE32(record, size_t(dataOffset)));
    const int32_t first = FlaggedFieldOffset(schema, flags, flag::kTrunFirstSampleFlags, false);
    run->HasFirstFlags = first >= 0;
    if (run->HasFirstFlags) run->FirstFlags = GetBE32(record, size_t(first));
    if (run->Count == 0) return true;
    if (run->EntrySize != 0) return run->Entries != nullptr;
    return uint64_t(run->Count) * std::max<uint32_t>(defaultSize, 1) <= fileSize;
}

FragmentTrack *FindTrack(FragmentTrack *tracks, size_t count, uint32_t trackId) {
    FragmentTrack *end = tracks + count;
    FragmentTrack *found = std::lower_bound(
        tracks, end, trackId, [](const FragmentTrack &t, uint32_t id) { return t.TrackId < id; });
    return found != end && found->TrackId == trackId ? found : nullptr;
}

const AtomNode *FindTopLevel(const Root_atom *root, const char *name) {
    const AtomNode *atom = root->FirstAtom;
    while (atom != nullptr && !AtomNameEquals(atom->AtomName, name)) atom = atom->NextSibling;
    return atom;
}

// The defaults of each track's "trex" ("moov"/"mvex"); of two for one
// track the first counts.
void ReadTrackExtends(const Root_atom *root, FragmentTrack *tracks, size_t count) {
    const AtomNode *moov = FindTopLevel(root, "moov");
    const AtomNode *mvex = FindChild(moov, "mvex");
    for (const AtomNode *trex = mvex != nullptr ? mvex->FirstChild : nullptr; trex != nullptr;
         trex = trex->NextSibling) {
        if (!AtomNameEquals(trex->AtomName, "trex") || !RecordHolds(trex, field::kTrexFlags + 4))
            continue;
        const uint8_t *record = trex->realStructure;
        FragmentTrack *track = FindTrack(tracks, count, GetBE32(record, field::kTrexTrackId));
        if (track == nullptr || track->HasExtends) continue;
        track->HasExtends = true;
        track->DefaultDuration = GetBE32(record, field::kTrexDuration);
        track->DefaultSize = GetBE32(record, field::kTrexSize);
        track->DefaultFlags = GetBE32(record, field::kTrexFlags);
        track->DefaultDescription = GetBE32(record, field::kTrexDescriptionIndex);
    }
}

// The whole "moof" atoms: one that reaches past the end of the file was
// cut while it was written, and is left out with all it says.
bool IsWholeFragment(const AtomNode *atom, const Root_atom *root) {
    return AtomNameEquals(atom->AtomName, "moof") && atom->AtomSize <= root->FileSize &&
           atom->AtomOffset <= root->FileSize - atom->AtomSize;
}

// The decoding time of a track fragment's first sample: "tfdt" where it
// has one, else where the track's samples so far end.
uint64_t FragmentStartTime(const AtomNode *traf, uint64_t running) {
    const AtomNode *tfdt = FindChild(traf, "tfdt");
    if (!RecordHolds(tfdt, field::kTfdtDecodeTime + 8)) return running;
    const uint8_t *record = tfdt->realStructure;
    return NodeVersion(tfdt) == 1 ? GetBE64(record, field::kTfdtDecodeTime)
                                  : GetBE32(record, field::kTfdtDecodeTime);
}

// The field at `at` of entry `index`, or `fallback`.
uint32_t EntryWord(const RunView &run, uint32_t index, int32_t at, uint32_t fallback) {
    if (at < 0) return fallback;
    return GetBE32(run.Entries, size_t(index) * run.EntrySize + size_t(at));
}

// Places the samples of one run from `start`, appending them to `node`
// when there is one; gives where the run's data ends. A run with fields
// per sample gives a record per sample; one without gives runs: its first
// sample when the run gives its flags, then the rest. False when the node
// has no memory left for its time list.
bool PlaceRun(const RunView &run, const SampleDefaults &defaults, uint64_t start,
              TrackNode *node, uint64_t *time, uint64_t *end) {
    if (run.EntrySize == 0) {
        *end = start + uint64_t(run.Count) * defaults.Size;
        if (node == nullptr) return true;
        for (uint32_t k = 0; k < run.Count;) {
            const bool first = k == 0 && run.HasFirstFlags;
            SampleRun placed{};
            placed.Units = first ? 1 : run.Count - k;
            placed.FirstOffset = start + uint64_t(k) * defaults.Size;
            placed.FirstTime = *time;
            placed.UnitSize = defaults.Size;
            placed.UnitDuration = defaults.Duration;
            placed.Group = 1;
            placed.IsSync = ((first ? run.FirstFlags : defaults.Flags) & flag::kSampleIsNonSync) == 0;
            if (node->RunCount >= node->RunCapacity ||
                placed.Units > node->SampleCapacity - node->SampleCount)
                return true;
            AppendRun(node, placed);
            const uint64_t duration = uint64_t(placed.Units) * defaults.Duration;
            *time += duration;
            node->DecodeDuration += duration;
            k += placed.Units;
        }
        return true;
    }
    uint64_t at = start;
    for (uint32_t k = 0; k < run.Count; ++k) {
        const uint32_t size = EntryWord(run, k, run.SizeAt, defaults.Size);
        if (node != nullptr && node->SampleCount < node->SampleCapacity &&
            node->RecordCount < node->RecordCapacity) {
            const uint32_t inherited = k == 0 && run.HasFirstFlags ? run.FirstFlags : defaults.Flags;
            const uint32_t flags = EntryWord(run, k, run.FlagsAt, inherited);
            const uint32_t duration = EntryWord(run, k, run.DurationAt, defaults.Duration);
            SampleRecord record{};
            record.Size = size;
            record.FileOffset = uint32_t(at);
            record.FileOffsetHigh = uint32_t(at >> 32);
            // Version 0 keeps an unsigned offset, version 1 a signed one;
            // both are stored as their 32 bits.
            record.CompositionOffset = EntryWord(run, k, run.CompositionAt, 0);
            record.IsSync = (flags & flag::kSampleIsNonSync) == 0 ? 1 : 0;
            if (!AppendRecord(node, record, *time, duration)) return false;
            *time += duration;
            node->DecodeDuration += duration;
        }
        at += size;
    }
    *end = at;
    return true;
}

// What a run adds to its track's plan.
void PlanRun(const RunView &run, TablePlan *plan) {
    if (run.Count == 0) return;
    plan->Samples += run.Count;
    plan->SyncBound += run.Count;
    plan->DurationMarks += 1;
    if (run.EntrySize != 0) {
        plan->Records += run.Count;
        plan->RecordRuns += 1;
    } else {
        plan->Runs += run.HasFirstFlags && run.Count > 1 ? 2 : 1;
    }
}

// The walk both passes share: every run of every track fragment of every
// whole "moof", with where its data begins. With `fill` the samples are
// appended to the tracks' nodes and the runs' entries freed; without, they
// are only counted.
void WalkFragments(const Root_atom *root, FragmentTrack *tracks, size_t count, bool fill) {
    const FragmentLayouts layouts;
    for (const AtomNode *moof = root->FirstAtom; moof != nullptr; moof = moof->NextSibling) {
        if (!IsWholeFragment(moof, root)) continue;
        // The first track fragment's data is counted from the "moof", each
        // later one's from where the data of the one before it ends.
        uint64_t previousEnd = moof->AtomOffset;
        for (AtomNode *traf = moof->FirstChild; traf != nullptr; traf = traf->NextSibling) {
            if (!AtomNameEquals(traf->AtomName, "traf")) continue;
            const AtomNode *tfhd = FindHeader(traf);
            if (tfhd == nullptr) continue;
            FragmentHeader header;
            ReadHeader(tfhd, layouts.Header, &header);
            FragmentTrack *track = FindTrack(tracks, count, header.TrackId);
            SampleDefaults trackDefaults;
            if (track != nullptr) {
                trackDefaults = {track->DefaultDuration, track->DefaultSize, track->DefaultFlags};
                ++track->Fragments;
            }
            const SampleDefaults defaults = DefaultsOf(tfhd, layouts.Header, trackDefaults);
            const uint64_t base = header.HasBase ? header.Base
                                  : (header.Flags & flag::kTfhdDefaultBaseIsMoof) != 0
                                      ? moof->AtomOffset
                                      : previousEnd;
            TrackNode *node = fill && track != nullptr && !track->Failed ? *track->Holder : nullptr;
            uint64_t time = node != nullptr ? FragmentStartTime(traf, track->NextTime) : 0;
            if (node != nullptr) {
                const uint32_t fallback = track->HasExtends ? track->DefaultDescription : 1;
                MarkFrom(&node->Descriptions, node->SampleCount,
                         FlaggedWord(tfhd, layouts.Header, header.Flags, flag::kTfhdDescriptionIndex,
                                     fallback));
            }
            if (!fill && track != nullptr) {
                track->Plan.DescriptionMarks += 1;
                track->Plan.DurationMarks += 1;
            }
            uint64_t runEnd = base;
            for (AtomNode *trun = traf->FirstChild; trun != nullptr; trun = trun->NextSibling) {
                if (!AtomNameEquals(trun->AtomName, "trun")) continue;
                RunView run;
                if (!ViewRun(trun, layouts.Run, root->FileSize, defaults.Size, &run)) break;
                if (!fill) {
                    if (track != nullptr) {
                        track->Samples = uint32_t(
                            std::min<uint64_t>(uint64_t(track->Samples) + run.Count, UINT32_MAX));
                        PlanRun(run, &track->Plan);
                    }
                    continue;
                }
                const uint64_t start = run.HasDataOffset ? base + int64_t(run.DataOffset) : runEnd;
                if (!PlaceRun(run, defaults, start, node, &time, &runEnd)) {
                    track->Failed = true;
                    node = nullptr;
                }
                // Nothing reads a run's entries again.
                ReleaseVariablePart(trun);
            }
            if (node != nullptr) track->NextTime = time;
            previousEnd = runEnd;
        }
    }
}

}  // namespace

void CountFragmentSamples(const Root_atom *root, FragmentTrack *tracks, size_t count) {
    ReadTrackExtends(root, tracks, count);
    WalkFragments(root, tracks, count, false);
}

void FillFragmentSamples(const Root_atom *root, FragmentTrack *tracks, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        tracks[i].Fragments = 0;
        TrackNode *node = tracks[i].Holder != nullptr ? *tracks[i].Holder : nullptr;
        if (node != nullptr) tracks[i].NextTime = node->DecodeDuration;
    }
    WalkFragments(root, tracks, count, true);
}
