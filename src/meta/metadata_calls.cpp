// MP4GetMetadata, MP4GetChapters and their releases: the tags and chapters
// of a read handle, each list handed out as one block.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <utility>

#include "meta/meta.h"

namespace {

constexpr int32_t kMetaBadArguments = -99;
constexpr int32_t kMetaNotReadHandle = -98;
constexpr int32_t kMetaNoMemory = -95;

// Atoms of one name under one parent that are looked at: more "udta" or
// "meta" siblings than this are passed over.
constexpr uint32_t kMaxSiblings = 8;
// A chapter track's sample is a title of at most 65535 bytes behind its
// length, and the style atoms of timed text: a larger one is no title.
constexpr uint32_t kMaxTitleSample = 1u << 20;
// "chpl" counts in units of 100 ns.
constexpr uint32_t kChplTimescale = 10000000;

std::string Indexed(const std::string &path, uint32_t index) {
    return index == 1 ? path : path + "[" + Decimal(index) + "]";
}

// The payloads of the children of `parent` named `name`, each with its
// path. A modern handle's tree holds every child; the classic reader ends
// a container's scan at the first name it does not know ("meta" in
// "moov", say), so on a classic handle the parent's payload is read whole
// (up to MP4GetAtom's 16 MiB) and its children found in it.
struct ChildPayload {
    std::vector<uint8_t> Bytes;
    std::string Path;
    ByteSpan Span() const { return {Bytes.data(), Bytes.size()}; }
};

std::vector<ChildPayload> ChildrenNamed(MP4_local_file *file, const std::string &parent, const char *name) {
    std::vector<ChildPayload> children;
    const std::string path = parent + "/" + name;
    if (file->read.Modern) {
        std::vector<uint8_t> payload;
        for (uint32_t i = 1; i <= kMaxSiblings && ReadAtomPayload(file, Indexed(path, i), &payload); ++i)
            children.push_back({std::move(payload), Indexed(path, i)});
        return children;
    }
    std::vector<uint8_t> whole;
    if (!ReadAtomPayload(file, parent, &whole)) return children;
    SpanAtoms atoms({whole.data(), whole.size()});
    for (SpanAtom atom; children.size() < kMaxSiblings && atoms.Next(&atom);)
        if (std::memcmp(atom.Name, name, 4) == 0)
            children.push_back({std::vector<uint8_t>(atom.Payload.Data, atom.Payload.Data + atom.Payload.Size),
                                Indexed(path, uint32_t(children.size() + 1))});
    return children;
}

// The "meta" atoms inside the "udta" atoms of a "moov" or "trak", then
// those of the "moov" or "trak" itself, then the "udta" strings: the order
// of precedence of their tags.
void CollectContainer(MP4_local_file *file, const std::string &parent, uint32_t trackId,
                      std::vector<TagDraft> *tags) {
    const std::vector<ChildPayload> udtas = ChildrenNamed(file, parent, "udta");
    for (const ChildPayload &udta : udtas) {
        SpanAtoms children(udta.Span());
        uint32_t metas = 0;
        for (SpanAtom child; children.Next(&child);) {
            if (std::memcmp(child.Name, "meta", 4) != 0 || ++metas > kMaxSiblings) continue;
            CollectItemList(child.Payload, Indexed(udta.Path + "/meta", metas), trackId, tags);
        }
    }
    for (const ChildPayload &meta : ChildrenNamed(file, parent, "meta"))
        CollectItemList(meta.Span(), meta.Path, trackId, tags);
    for (const ChildPayload &udta : udtas) CollectUserData(udta.Span(), udta.Path, trackId, tags);
}

// The strings of a list and the list itself as one block: the records
// first, then every string and value, each behind the last.
class BlockBuilder {
public:
    bool Reserve(size_t records, size_t recordSize, size_t bytes) {
        used_ = records * recordSize;
        block_ = static_cast<uint8_t *>(std::malloc(used_ + bytes > 0 ? used_ + bytes : 1));
        return block_ != nullptr;
    }
    uint8_t *Block() const { return block_; }
    // A copy of `size` bytes and a NUL behind them.
    const uint8_t *Put(const void *bytes, size_t size) {
        uint8_t *at = block_ + used_;
        if (size > 0) std::memcpy(at, bytes, size);
        at[size] = 0;
        used_ += size + 1;
        return at;
    }
    const char *Put(const std::string &text) {
        return reinterpret_cast<const char *>(Put(text.data(), text.size()));
    }

private:
    uint8_t *block_ = nullptr;
    size_t used_ = 0;
};

int32_t PackTags(const std::vector<TagDraft> &drafts, MP4Tag **tags, uint32_t *count) {
    size_t bytes = 0;
    for (const TagDraft &tag : drafts)
        bytes += tag.Key.size() + tag.Value.size() + tag.Source.size() + 3 +
                 (tag.Mime != nullptr ? std::strlen(tag.Mime) + 1 : 0);
    BlockBuilder builder;
    if (!drafts.empty() && !builder.Reserve(drafts.size(), sizeof(MP4Tag), bytes)) return kMetaNoMemory;
    MP4Tag *records = reinterpret_cast<MP4Tag *>(builder.Block());
    for (size_t i = 0; i < drafts.size(); ++i) {
        const TagDraft &draft = drafts[i];
        MP4Tag *tag = new (&records[i]) MP4Tag{};
        tag->Key = builder.Put(draft.Key);
        tag->Type = draft.Type;
        tag->TrackId = draft.TrackId;
        if (draft.Type != MP4_TAG_INTEGER) {
            tag->Value = builder.Put(draft.Value.data(), draft.Value.size());
            tag->Size = uint32_t(draft.Value.size());
        }
        tag->Integer = draft.Integer;
        tag->Total = draft.Total;
        tag->Mime = draft.Mime != nullptr ? builder.Put(std::string(draft.Mime)) : nullptr;
        tag->Source = builder.Put(draft.Source);
    }
    *tags = records;
    *count = uint32_t(drafts.size());
    return 1;
}

struct ChapterDraft {
    uint64_t Start;
    uint64_t End;
    uint32_t Timescale;
    std::string Title;
};

// The chapters of the first track that a "tref" "chap" names, from its
// samples (a 16-bit length and the title); false when there is none or it
// can't be read (a classic handle has no tables for it).
bool ChaptersFromTrack(MP4_local_file *file, std::vector<ChapterDraft> *chapters) {
    uint32_t trackCount = 0;
    if (MP4GetTrackCount(file, &trackCount) != 1) return false;
    uint32_t chapterTrack = 0;
    std::vector<uint8_t> tref;
    for (uint32_t i = 0; i < trackCount && chapterTrack == 0; ++i) {
        if (!ReadAtomPayload(file, "moov/trak[" + Decimal(i + 1) + "]/tref", &tref)) continue;
        SpanAtoms references({tref.data(), tref.size()});
        for (SpanAtom reference; chapterTrack == 0 && references.Next(&reference);)
            if (std::memcmp(reference.Name, "chap", 4) == 0 && reference.Payload.Size >= 4)
                chapterTrack = GetBE32(reference.Payload.Data, 0);
    }
    if (chapterTrack == 0) return false;
    // Samples may share their bytes: titles that add up past the file's
    // size end the list.
    uint64_t titleBytes = 0;
    for (uint32_t i = 0; i < trackCount; ++i) {
        MP4TrackInfo track{};
        if (MP4GetTrackInfo(file, i, &track) != 1 || track.TrackId != chapterTrack) continue;
        for (uint32_t n = 0; n < track.SampleCount; ++n) {
            MP4SampleInfo info{};
            if (MP4GetSampleInfo(file, track.TrackId, track.TrackType, n, &info) != 1) return false;
            if (info.Size < 2 || info.Size > kMaxTitleSample) continue;
            MP4Sample *sample = nullptr;
            if (MP4ReadSample(file, track.TrackId, track.TrackType, n, &sample) != 1) continue;
            const uint32_t length = GetBE16(sample->Data, 0);
            titleBytes += length;
            if (titleBytes > file->RootAtom->FileSize) {
                SampleDataFree(&sample);
                break;
            }
            if (length <= sample->Size - 2)
                chapters->push_back({info.DecodeTime, info.DecodeTime + info.Duration, track.Timescale,
                                     TextToUtf8({sample->Data + 2, length}, false)});
            SampleDataFree(&sample);
        }
        return !chapters->empty();
    }
    return false;
}

// The movie's duration from "mvhd", in ticks of `timescale`; 0 unknown.
uint64_t MovieDuration(MP4_local_file *file, uint32_t timescale) {
    std::vector<uint8_t> mvhd;
    if (!ReadAtomPayload(file, "moov/mvhd", &mvhd) || mvhd.size() < 20) return 0;
    const bool wide = mvhd[0] == 1;
    if (wide && mvhd.size() < 32) return 0;
    const uint32_t movieScale = GetBE32(mvhd.data(), wide ? 20 : 12);
    const uint64_t duration = wide ? GetBE64(mvhd.data(), 24) : GetBE32(mvhd.data(), 16);
    if (movieScale == 0 || duration == UINT64_MAX || (!wide && duration == UINT32_MAX)) return 0;
    return uint64_t((unsigned __int128)duration * timescale / movieScale);
}

// The chapters of "moov/udta/chpl": version and flags (version 1 then 4
// reserved bytes), an 8-bit count, then each start (64 bits, 100 ns) and
// title (8-bit length). An entry that does not fit ends the list; each
// ends where the next one starts, the last at the end of the movie.
void ChaptersFromChpl(MP4_local_file *file, std::vector<ChapterDraft> *chapters) {
    for (const ChildPayload &udta : ChildrenNamed(file, "moov", "udta")) {
        SpanAtoms children(udta.Span());
        SpanAtom chpl;
        bool found = false;
        while (!found && children.Next(&chpl)) found = std::memcmp(chpl.Name, "chpl", 4) == 0;
        if (!found) continue;
        const ByteSpan body = chpl.Payload;
        size_t at = body.Size > 0 && body.Data[0] == 1 ? 8 : 4;
        if (!body.Holds(at, 1)) return;
        const uint32_t count = body.Data[at++];
        for (uint32_t n = 0; n < count && body.Holds(at, 9); ++n) {
            const uint64_t start = GetBE64(body.Data, at);
            const size_t length = body.Data[at + 8];
            if (!body.Holds(at + 9, length)) break;
            chapters->push_back({start, 0, kChplTimescale,
                                 TextToUtf8({body.Data + at + 9, length}, false)});
            at += 9 + length;
        }
        std::stable_sort(chapters->begin(), chapters->end(),
                         [](const ChapterDraft &a, const ChapterDraft &b) { return a.Start < b.Start; });
        const uint64_t movieEnd = MovieDuration(file, kChplTimescale);
        for (size_t n = 0; n < chapters->size(); ++n) {
            ChapterDraft &chapter = (*chapters)[n];
            chapter.End = n + 1 < chapters->size() ? (*chapters)[n + 1].Start : movieEnd;
            chapter.End = std::max(chapter.End, chapter.Start);
        }
        return;
    }
}

// A common key given, for the file (0) or a track.
struct TakenKey {
    uint32_t TrackId;
    std::string Key;
    bool operator<(const TakenKey &other) const {
        return TrackId != other.TrackId ? TrackId < other.TrackId : Key < other.Key;
    }
};

}  // namespace

void SettleKeys(std::vector<TagDraft> *tags) {
    std::set<TakenKey> taken;
    for (TagDraft &tag : *tags) {
        if (tag.OwnKey.empty() || tag.Key == tag.OwnKey) continue;
        if (!taken.insert({tag.TrackId, tag.Key}).second) tag.Key = tag.OwnKey;
    }
}

int32_t MP4GetMetadata(MP4_local_file *file, MP4Tag **tags, uint32_t *count) {
    if (file == nullptr || tags == nullptr || count == nullptr) return kMetaBadArguments;
    if (file->Form != HandleForm::Read) return kMetaNotReadHandle;
    try {
        std::vector<TagDraft> drafts;
        CollectContainer(file, "moov", 0, &drafts);
        CollectHeaderTimes(file, "moov/mvhd", 0, &drafts);
        uint32_t trackCount = 0;
        MP4GetTrackCount(file, &trackCount);
        for (uint32_t i = 0; i < trackCount; ++i) {
            MP4TrackInfo track{};
            if (MP4GetTrackInfo(file, i, &track) != 1 || track.TrackId == 0) continue;
            const std::string trak = "moov/trak[" + Decimal(i + 1) + "]";
            CollectContainer(file, trak, track.TrackId, &drafts);
            CollectHeaderTimes(file, trak + "/tkhd", track.TrackId, &drafts);
            CollectHeaderTimes(file, trak + "/mdia/mdhd", track.TrackId, &drafts);
        }
        SettleKeys(&drafts);
        if (drafts.empty()) {
            *tags = nullptr;
            *count = 0;
            return 1;
        }
        return PackTags(drafts, tags, count);
    } catch (const std::bad_alloc &) {
        return kMetaNoMemory;
    }
}

void MP4FreeMetadata(MP4Tag *tags) { std::free(tags); }

int32_t MP4GetChapters(MP4_local_file *file, MP4Chapter **chapters, uint32_t *count) {
    if (file == nullptr || chapters == nullptr || count == nullptr) return kMetaBadArguments;
    if (file->Form != HandleForm::Read) return kMetaNotReadHandle;
    try {
        std::vector<ChapterDraft> drafts;
        if (!ChaptersFromTrack(file, &drafts)) {
            drafts.clear();
            ChaptersFromChpl(file, &drafts);
        }
        if (drafts.empty()) {
            *chapters = nullptr;
            *count = 0;
            return 1;
        }
        size_t bytes = 0;
        for (const ChapterDraft &chapter : drafts) bytes += chapter.Title.size() + 1;
        BlockBuilder builder;
        if (!builder.Reserve(drafts.size(), sizeof(MP4Chapter), bytes)) return kMetaNoMemory;
        MP4Chapter *records = reinterpret_cast<MP4Chapter *>(builder.Block());
        for (size_t i = 0; i < drafts.size(); ++i) {
            MP4Chapter *chapter = new (&records[i]) MP4Chapter{};
            chapter->Start = drafts[i].Start;
            chapter->End = drafts[i].End;
            chapter->Timescale = drafts[i].Timescale;
            chapter->Title = builder.Put(drafts[i].Title);
        }
        *chapters = records;
        *count = uint32_t(drafts.size());
        return 1;
    } catch (const std::bad_alloc &) {
        return kMetaNoMemory;
    }
}

void MP4FreeChapters(MP4Chapter *chapters) { std::free(chapters); }
