// The second pass of the flush: the atoms in tree order, then the media
// data, strictly forward. Temp files are copied through a bounded buffer,
// so memory stays flat however large the media is.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"
#include "writer/writer.h"

namespace {

constexpr int32_t kFailed = -99;
// Used when the copy buffer can't be allocated.
constexpr size_t kFallbackBufferBytes = 4096;

struct CopyBuffer {
    uint8_t *bytes;
    size_t size;
};

// An open temp file and its true length.
struct TempSource {
    FILE *stream = nullptr;
    uint64_t length = 0;
};

struct PrintableName {
    char text[5];
    explicit PrintableName(const char *name) { CopyAtomName(text, name); }
};

// Opens a temp file for reading and measures it. A length that differs
// from what the intake counted is reported; the copy goes by the true
// length.
bool OpenTemp(const IntakeState &intake, const char *kind, TempSource *source) {
    FILE *stream = intake.TempFileName != nullptr ? std::fopen(intake.TempFileName, "rb") : nullptr;
    if (stream == nullptr) {
        PrintDiagnostic("Can't open the %s tempfile!\n", kind);
        return false;
    }
    long length = -1;
    if (std::fseek(stream, 0, SEEK_END) == 0) length = std::ftell(stream);
    if (length < 0 || std::fseek(stream, 0, SEEK_SET) != 0) {
        PrintDiagnostic("Can't read the %s tempfile!\n", kind);
        std::fclose(stream);
        return false;
    }
    if (uint64_t(length) != intake.TotalBytes) PrintDiagnostic("error in %s tempfile!\n", kind);
    source->stream = stream;
    source->length = uint64_t(length);
    return true;
}

// Copies `length` bytes from the temp file. A short read leaves zeros in
// place of the missing bytes, as a zeroed block read in one piece would,
// so that every later offset stays right.
bool CopyTemp(TempSource &source, const char *kind, FILE *out, CopyBuffer buffer) {
    uint64_t left = source.length;
    bool readFailed = false;
    while (left > 0) {
        const size_t chunk = left < buffer.size ? size_t(left) : buffer.size;
        size_t got = readFailed ? 0 : std::fread(buffer.bytes, 1, chunk, source.stream);
        if (got < chunk) {
            if (!readFailed) PrintDiagnostic("error in reading %s tempfile!\n", kind);
            readFailed = true;
            std::memset(buffer.bytes + got, 0, chunk - got);
        }
        if (std::fwrite(buffer.bytes, 1, chunk, out) != chunk) return false;
        left -= chunk;
    }
    return true;
}

// Writes a generated sample at its recorded size. The form decides the
// bytes; should the two disagree, the size wins, cut or padded with zeros.
bool WriteGenerated(const TrackNode *track, bool hasVideo, bool hasAudio, FILE *out) {
    const GeneratedSample form = GetGeneratedSample(track->TrackType, hasVideo, hasAudio);
    const uint32_t size = track->SampleRecords[0].Size;
    const uint32_t copied = form.Size < size ? form.Size : size;
    if (copied > 0 && std::fwrite(form.Bytes, 1, copied, out) != copied) return false;
    for (uint32_t i = copied; i < size; ++i) {
        if (std::fputc(0, out) == EOF) return false;
    }
    return true;
}

void CloseTemp(TempSource &source) {
    if (source.stream != nullptr) std::fclose(source.stream);
    source.stream = nullptr;
}

}  // namespace

int32_t WriteAtoms(AtomNode *first, Root_atom *root) {
    FILE *out = root->FileStream;
    for (AtomNode *atom = first; atom != nullptr; atom = atom->NextSibling) {
        AtomSchema schema;
        const PrintableName name(atom->AtomName);
        if (atom->realStructure == nullptr || GetAtomSchema(atom, &schema) != 1) {
            PrintDiagnostic("error occuring in writing [%s]atom\n", name.text);
            return kFailed;
        }
        const uint32_t n = schema.ChildOffset != 0 ? schema.ChildOffset : atom->AtomSize;
        const uint32_t head = RecordHeadLength(schema);
        size_t written = 0;
        if (schema.HasTable == 0) {
            const uint32_t bytes = AtomNameEquals(atom->AtomName, "mdat") ? 8 : n;
            if (bytes > schema.RecordSize) {
                PrintDiagnostic("error occuring in writing [%s]atom\n", name.text);
                return kFailed;
            }
            written = std::fwrite(atom->realStructure, 1, bytes, out);
        } else {
            const void *table = GetRecordPointer(atom);
            const uint32_t tableBytes = n > head ? n - head : 0;
            if (n < head || (table == nullptr && tableBytes > 0)) {
                PrintDiagnostic("error occuring in writing [%s]atom\n", name.text);
                return kFailed;
            }
            written = std::fwrite(atom->realStructure, 1, head, out);
            if (tableBytes > 0) written += std::fwrite(table, 1, tableBytes, out);
        }
        root->FileSize += uint32_t(written);
        if (atom->FirstChild != nullptr) WriteAtoms(atom->FirstChild, root);
    }
    return 1;
}

int32_t WriteOutputFile(MP4_local_file *file) {
    Root_atom *root = file->RootAtom;
    if (root == nullptr || root->FileStream == nullptr) return kFailed;
    root->FileSize = 0;
    WriteForm &form = file->write;
    FILE *out = root->FileStream;

    // Both temp files are opened before the first byte goes out: a file
    // whose media can't be read is not begun at all.
    TempSource video, audio;
    if ((form.VideoTrack != nullptr && !OpenTemp(form.VideoIntake, "video", &video)) ||
        (form.AudioTrack != nullptr && !OpenTemp(form.AudioIntake, "audio", &audio))) {
        CloseTemp(video);
        CloseTemp(audio);
        PrintDiagnostic("the file is not written\n");
        return kFailed;
    }

    uint8_t fallback[kFallbackBufferBytes];
    CopyBuffer buffer{static_cast<uint8_t *>(std::malloc(kCopyBufferBytes)), kCopyBufferBytes};
    if (buffer.bytes == nullptr) buffer = CopyBuffer{fallback, sizeof fallback};

    bool ok = WriteAtoms(root->FirstAtom, root) == 1;
    if (ok && video.stream != nullptr) ok = CopyTemp(video, "video", out, buffer);
    if (ok && audio.stream != nullptr) ok = CopyTemp(audio, "audio", out, buffer);
    const bool hasVideo = form.VideoTrack != nullptr, hasAudio = form.AudioTrack != nullptr;
    if (ok && form.OdTrack != nullptr) ok = WriteGenerated(form.OdTrack, hasVideo, hasAudio, out);
    if (ok && form.SceneTrack != nullptr)
        ok = WriteGenerated(form.SceneTrack, hasVideo, hasAudio, out);
    if (!ok) PrintDiagnostic("error in writing the output file!\n");

    if (buffer.bytes != fallback) std::free(buffer.bytes);
    CloseTemp(video);
    CloseTemp(audio);
    return ok ? 1 : kFailed;
}
