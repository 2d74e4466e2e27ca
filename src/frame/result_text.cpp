// MP4ResultText: what each result of each call means, one row per call
// and result. The same number means different things in different calls,
// so a meaning is looked up by call and result together. The mp4core tool
// prints these texts with its failures.
#include <cstring>
#include <initializer_list>

#include "frame/frame.h"

namespace {

struct ResultText {
    const char *call;
    int32_t code;
    const char *meaning;
};

constexpr ResultText kResultTexts[] = {
    {"MP4FileOpen", -99, "the path is missing or 256 characters or longer"},
    {"MP4FileOpen", -98, "no memory for the file handle"},
    {"MP4FileOpen", -97, "no memory for the root atom"},
    {"MP4FileOpen", -96, "the file can't be opened, or its top-level atoms can't be read"},
    {"MP4FileOpen", -95, "the file is empty or 2 GiB or larger, or no memory for an atom's record"},
    {"MP4FileOpen", -94, "the table mode is not 1, 2 or 3, or no memory for a video track"},
    {"MP4FileOpen", -93, "no memory for an audio track"},
    {"MP4FileOpen", -92, "no memory for a hint track"},
    {"MP4FileOpen", -91, "no memory for an object descriptor track"},
    {"MP4FileOpen", -90, "no memory for a scene description track"},

    // Otherwise the results of MP4FileOpen (kSharedTables).
    {"MP4FileOpenEx", -100, "the flags hold a bit other than MP4_OPEN_MODERN"},
    {"MP4FileOpenEx", -95, "the file is empty, or no memory for an atom's record"},

    // Also the results of GetSample and SeekTrack (kSharedTables).
    {"GetNextSample", -99, "no file handle, track ID 0, or no place for the sample"},
    {"GetNextSample", -98, "the file has no video track"},
    {"GetNextSample", -97, "no usable video track with this ID"},
    {"GetNextSample", -96, "no usable video track with this ID"},
    {"GetNextSample", -95, "the file has no audio track"},
    {"GetNextSample", -94, "no usable audio track with this ID"},
    {"GetNextSample", -93, "no usable audio track with this ID"},
    {"GetNextSample", -92, "the track type is neither video (1) nor audio (2)"},
    {"GetNextSample", -91, "no memory for the sample record"},
    {"GetNextSample", -90, "the video track was given up when the file was opened"},
    {"GetNextSample", -89, "the video track has no sample table"},
    {"GetNextSample", -88, "no memory for the video sample's bytes"},
    {"GetNextSample", -87, "the video sample's size is 0"},
    {"GetNextSample", -86, "the audio track was given up when the file was opened"},
    {"GetNextSample", -85, "the audio track has no sample table"},
    {"GetNextSample", -84, "no memory for the audio sample's bytes"},
    {"GetNextSample", -83, "the audio sample's size is 0"},
    {"GetNextSample", -82, "the file gave fewer bytes than the sample's size"},

    {"GetNextSample", 0, "the end of the track: no sample behind the cursor"},
    // SeekTrackPos gives GetNextSample's -99 to -92, then these.
    {"SeekTrackPos", 0, "the track has no samples"},
    {"SeekTrackPos", -91, "the video track was given up when the file was opened"},
    {"SeekTrackPos", -90, "the video track has no sample table"},
    {"SeekTrackPos", -89, "the audio track was given up when the file was opened"},
    {"SeekTrackPos", -88, "the audio track has no sample table"},

    // Also the results of PrevKeyFrame.
    {"NextKeyFrame", 0, "the track has no samples"},
    {"NextKeyFrame", -99, "no file handle, track ID 0, or no place for the sample"},
    {"NextKeyFrame", -98, "the file has no video track"},
    {"NextKeyFrame", -97, "no usable video track with this ID"},
    {"NextKeyFrame", -96, "no usable video track with this ID"},
    {"NextKeyFrame", -95, "audio tracks have no key frames"},
    {"NextKeyFrame", -94, "the track type is neither video (1) nor audio (2)"},
    {"NextKeyFrame", -93, "no memory for the sample record"},
    {"NextKeyFrame", -91, "the video track was given up when the file was opened"},
    {"NextKeyFrame", -90, "the video track has no sample table"},
    {"NextKeyFrame", -89, "no memory for the sample's bytes"},
    {"NextKeyFrame", -88, "the sample's size is 0"},
    {"NextKeyFrame", -87, "the file gave fewer bytes than the sample's size"},

    {"Mp4VideoSeek", -1,
     "a bad argument, no usable video track with a key frame table, or no key frame at or before "
     "the target"},
    {"Mp4VideoSeek", -2, "no decore is linked into the application"},
    {"Mp4VideoSeek", -31, "a key frame step failed"},
    {"Mp4VideoSeek", -32, "decore failed on the key frame"},
    {"Mp4VideoSeek", -33, "a sample could not be read, or decore failed, while samples were fed"},

    {"RetMp4MediaInfo", -99, "no file handle, track ID 0, or no place for the information"},
    {"RetMp4MediaInfo", -98, "the file has no video track"},
    {"RetMp4MediaInfo", -97, "no usable video track with this ID"},
    {"RetMp4MediaInfo", -96, "no usable video track with this ID"},
    {"RetMp4MediaInfo", -95, "the file has no audio track"},
    {"RetMp4MediaInfo", -94, "no usable audio track with this ID"},
    {"RetMp4MediaInfo", -93, "no usable audio track with this ID"},
    {"RetMp4MediaInfo", -92, "the track type is neither video (1) nor audio (2)"},
    {"RetMp4MediaInfo", -91, "the track's path \"mdia\", \"minf\", \"stbl\", \"stsd\" is broken"},
    {"RetMp4MediaInfo", -90,
     "the sample entry is unknown, of the other kind of track, or without its configuration atom"},
    {"RetMp4MediaInfo", -88, "no memory for the media information"},
    {"RetMp4MediaInfo", -87, "no memory for a configuration block"},

    {"GetFileInfo", -11, "the file can't be opened for reading"},
    {"GetFileInfo", -12, "no place for the summary"},
    {"GetFileInfo", -21, "MP4FileOpen failed on the file"},

    {"AAC_EsdsToAdtsHead", -21, "no \"esds\" atom given"},
    {"AAC_EsdsToAdtsHead", -20, "no place for the header"},
    {"AAC_EsdsToAdtsHead", -19, "the \"esds\" atom ends before the decoder configuration it needs"},

    // The result is unsigned: -1 stands for all bits set.
    {"GetM4vHeaderSize", -1,
     "the file can't be opened, or it holds no video object layer header that can be parsed"},
    {"GetM4vHeaderSize", 0, "no memory for the read buffer"},

    {"EncryptMp4Iod", -99, "no file handle, or no place for the descriptor"},
    {"EncryptMp4Iod", -98, "no memory for the descriptor"},
    {"EncryptMp4Iod", -97,
     "a configuration longer than 100 bytes, or both together 200 bytes or longer"},
    {"DecryptMp4Iod", 0, "the video block is empty"},
    {"DecryptMp4Iod", -99, "no descriptor, or no place for the configurations"},
    {"DecryptMp4Iod", -98,
     "a configuration longer than 100 bytes, or both together 200 bytes or longer"},
    {"DecryptMp4Iod", -97, "no memory for a configuration"},

    // The calls by track and sample number; MP4ReadSample shares the first
    // four with MP4GetSampleInfo (kSharedTables).
    {"MP4GetTrackInfo", -99, "no file handle, or no place for the information"},
    {"MP4GetTrackInfo", -98, "no track at this index"},
    {"MP4GetSampleInfo", -99, "no file handle, track ID 0, or no place for the information"},
    {"MP4GetSampleInfo", -98, "no track with this ID and type"},
    {"MP4GetSampleInfo", -97, "the track has no sample table"},
    {"MP4GetSampleInfo", -96, "no sample with this number"},
    {"MP4GetTrackCount", -99, "no file handle, or no place for the count"},
    {"MP4FindSample", -99, "no file handle, track ID 0, or no place for the sample number"},
    {"MP4FindSample", -98, "the flags hold an unknown bit"},
    {"MP4FindSample", -97, "no track with this ID and type"},
    {"MP4FindSample", -96, "the track has no sample table"},
    {"MP4FindSample", -95, "no such sample: the track has none, or no sync sample at or before the time"},
    {"MP4ReadSample", -95, "no memory for the sample record"},
    {"MP4ReadSample", -94, "the sample's size is 0"},
    {"MP4ReadSample", -93, "no memory for the sample's bytes"},
    {"MP4ReadSample", -92, "the file holds fewer bytes than the sample needs"},
    {"MP4ReadSampleInto", -92, "the file holds fewer bytes than the sample needs"},
    {"MP4ReadSampleInto", -91, "the buffer is smaller than the sample"},
    {"MP4GetSampleInfos", -96, "the samples asked for run past the end of the track"},
    {"MP4ReadSamples", -96, "the samples asked for run past the end of the track"},
    {"MP4ReadSamples", -92, "the file holds fewer bytes than the first sample needs"},
    {"MP4ReadSamples", -91, "the buffer is smaller than the first sample"},
    {"MP4NextInFileOrder", 0, "no sample is left"},
    {"MP4NextInFileOrder", -99, "no file handle, or no place for the track and sample"},
    {"MP4NextInFileOrder", -98, "not a read handle"},
    {"MP4NextInFileOrder", -97, "no memory for the cursor"},
    {"MP4GetDecoderConfig", -99, "no file handle, track ID 0, or no place for the configuration"},
    {"MP4GetDecoderConfig", -98, "no track with this ID and type"},
    {"MP4GetDecoderConfig", -97, "the sample entry has no decoder configuration"},
    {"MP4GetDecoderConfig", -96,
     "the file holds fewer bytes than the configuration atom claims, or it claims more than 1 MiB"},
    {"MP4GetDecoderConfig", -95, "no memory for the configuration"},
    {"MP4GetAtom", -99, "no file handle, path, or no place for the payload"},
    {"MP4GetAtom", -98,
     "the path is malformed: empty, too long, a name of other than four characters, or an index "
     "that is 0 or no number"},
    {"MP4GetAtom", -97, "no atom at that path"},
    {"MP4GetAtom", -96, "the file holds fewer bytes than the atom claims"},
    {"MP4GetAtom", -95, "no memory for the payload"},
    {"MP4GetAtom", -94, "the payload is above 16 MiB"},

    // The authoring calls have one failure result; the library's debug
    // output on standard error has said which check refused.
    {"MP4FileNew", -99, "the file can't be created, its path has 256 characters or more, or no memory"},
    {"MP4FileNewEx", -100,
     "the flags hold an unknown bit or a contradiction (MP4_NEW_SYNC without a fragmented or "
     "progressive file, both layouts, MP4_NEW_FASTSTART without MP4_NEW_PROGRESSIVE)"},
    {"MP4AddTrack", -99, "no handle, track description or place for the ID"},
    {"MP4AddTrack", -98, "the handle is not a progressive or fragmented write handle"},
    {"MP4AddTrack", -97, "samples were written already, or a write failed"},
    {"MP4AddTrack", -96, "a reserved word is not zero"},
    {"MP4AddTrack", -95, "the track description does not fit: type, format, timescale, size, rate, "
                         "channels, bits, rotation, pixel aspect or language"},
    {"MP4AddTrack", -94, "the decoder configuration does not fit the format"},
    {"MP4AddTrack", -93, "no memory"},
    {"MP4AddTrack", -92, "the file holds 4096 tracks"},
    {"MP4AddTrackFrom", -99, "no handle, source or place for the ID, or track ID 0"},
    {"MP4AddTrackFrom", -98, "the handle is not a progressive write handle"},
    {"MP4AddTrackFrom", -97, "samples were written already, or a write failed"},
    {"MP4AddTrackFrom", -93, "no memory"},
    {"MP4AddTrackFrom", -92, "the file holds 4096 tracks"},
    {"MP4AddTrackFrom", -91, "the source is not a read handle"},
    {"MP4AddTrackFrom", -90, "the source has no track of this ID and type"},
    {"MP4AddTrackFrom", -89, "the track is protected; its sample auxiliary information is not carried over"},
    {"MP4AddTrackFrom", -88, "the track's sample description can't be read or holds no entry"},
    {"MP4WriteSample", -99, "a write to the file failed (a full disk, a file-size limit)"},
    {"MP4WriteSample", -98, "the handle is not a progressive or fragmented write handle"},
    {"MP4WriteSample", -97, "no track with this ID"},
    {"MP4WriteSample", -96,
     "a reserved word, an unknown flag, a description index past the track's entries, or a new "
     "fragment asked for on a track that does not lead"},
    {"MP4WriteSample", -95, "the decode time does not rise"},
    {"MP4WriteSample", -94, "a PCM sample that is not a whole number of frames"},
    {"MP4WriteSample", -93, "no memory"},
    {"MP4WriteSample", -92, "the file was given up after a failed write"},
    {"CreateTrack", -99,
     "the track was refused: a bad argument, a second track of its type, no memory, or a temp "
     "file that can't be created"},
    {"AddVideoFrame", -99,
     "the frame was refused: no video track, a time stamp below the last one, a temp file past "
     "4 GiB, no memory, or a failed write to the temp file (fragmented: to the file, which ends "
     "at its last whole fragment)"},
    {"AddAudioFrame", -99,
     "the frame was refused: no audio track, a time stamp below the last one, a temp file past "
     "4 GiB, no memory, or a failed write to the temp file (fragmented: to the file, which ends "
     "at its last whole fragment)"},
    // Also the results of MP4GetChapters.
    {"MP4GetMetadata", -99, "no file handle, or no place for the list"},
    {"MP4GetMetadata", -98, "not a read handle"},
    {"MP4GetMetadata", -95, "no memory for the list"},
    // Also the results of MP4SetChapters.
    {"MP4SetMetadata", -99, "no file handle, or no records with a count"},
    {"MP4SetMetadata", -98, "not a progressive or fragmented write handle of the modern calls"},
    {"MP4SetMetadata", -97, "too late: the fragmented file's moov is written, or a write failed"},
    {"MP4SetMetadata", -96, "a record does not fit (its key has no place, a wrong type, a bad value)"},
    {"MP4SetMetadata", -93, "no memory"},
    {"MP4FileFlush", -98,
     "the file is complete with its index at the end, but moving the index in front failed"},
    {"MP4FileFlush", -99,
     "no file handle, or (fragmented) the last fragment or the index could not be written"},
};

// Calls that give the results of another call, for the codes they have no
// row of their own for.
struct SharedTable {
    const char *call;
    const char *sameAs;
};

constexpr SharedTable kSharedTables[] = {
    {"GetSample", "GetNextSample"},
    {"SeekTrack", "GetNextSample"},
    {"PrevKeyFrame", "NextKeyFrame"},
    {"MP4FileOpenEx", "MP4FileOpen"},
    {"MP4FileNewEx", "MP4FileNew"},
    {"MP4ReadSample", "MP4GetSampleInfo"},
    {"MP4GetChapters", "MP4GetMetadata"},
    {"MP4SetChapters", "MP4SetMetadata"},
    {"MP4ReadSampleInto", "MP4GetSampleInfo"},
    {"MP4GetSampleInfos", "MP4GetSampleInfo"},
    {"MP4ReadSamples", "MP4GetSampleInfo"},
    {"SeekTrackPos", "GetNextSample"},
};

const char *TableOf(const char *call) {
    for (const SharedTable &shared : kSharedTables) {
        if (std::strcmp(shared.call, call) == 0) return shared.sameAs;
    }
    return call;
}

}  // namespace

const char *MP4ResultText(const char *call, int32_t result) {
    if (call != nullptr) {
        for (const char *table : {call, TableOf(call)}) {
            for (const ResultText &row : kResultTexts) {
                if (row.code == result && std::strcmp(row.call, table) == 0) return row.meaning;
            }
        }
    }
    return result == 1 ? "success" : "a result this call is not known to give";
}

