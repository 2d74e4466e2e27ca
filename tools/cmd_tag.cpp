// mp4core tag: sets and removes a file's tags, its cover and its chapters.
// The tags the file keeps where the library writes them (iTunes items,
// QuickTime keys, "\xC2\xA9xyz") are read with MP4GetMetadata, edited, and
// written again by the library itself: MP4SetMetadata and MP4SetChapters on
// a scratch file beside the original, whose "udta" and "meta" are then
// spliced into the file's "moov" (moov_edit.cpp). Every other atom stays
// as it was.
#include <algorithm>
#include <csignal>
#include <initializer_list>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <climits>
#include <unistd.h>
#include <vector>

#include "commands.h"
#include "moov_edit.h"
#include "mp4core.h"
#include "result_text.h"
#include "tag_copy.h"

namespace {

// Places whose tags this command rewrites: their items come back from the
// scratch file.
constexpr const char *kRewrittenSources[] = {"moov/udta/meta/", "moov/meta/", "moov/udta/\xC2\xA9xyz"};

// Whether a tag's Source lies under `prefix`, its containers' indexes
// ("moov/udta[2]/\xC2\xA9xyz") left out.
bool StartsWith(const char *source, const char *prefix) {
    if (source == nullptr) return false;
    std::string place;
    for (const char *c = source; *c != 0; ++c) {
        if (*c == '[' && std::strchr(c, ']') != nullptr && std::strchr(c, '/') > std::strchr(c, ']')) {
            c = std::strchr(c, ']');
            continue;
        }
        place += *c;
    }
    return place.compare(0, std::strlen(prefix), prefix) == 0;
}

bool Rewritten(const MP4Tag &tag) {
    for (const char *prefix : kRewrittenSources)
        if (StartsWith(tag.Source, prefix)) return true;
    return false;
}

// The payload of an atom, empty when there is none.
std::vector<uint8_t> Payload(MP4_local_file *file, const char *path) {
    uint8_t *data = nullptr;
    uint64_t size = 0;
    if (MP4GetAtom(file, path, &data, &size) != 1) return {};
    std::vector<uint8_t> bytes(data, data + size);
    MP4freeData(reinterpret_cast<void **>(&data));
    return bytes;
}

// The handler type of a "meta" atom (a full atom in "udta", a plain one
// as phones write it in "moov").
std::string HandlerOf(MP4_local_file *file, const char *meta) {
    const std::vector<uint8_t> hdlr = Payload(file, (std::string(meta) + "/hdlr").c_str());
    return hdlr.size() >= 12 ? std::string(reinterpret_cast<const char *>(hdlr.data() + 8), 4) : std::string();
}

bool Whole(const char *text, const char *end, uint32_t *value) {
    char *stop = nullptr;
    const unsigned long v = std::strtoul(text, &stop, 10);
    if (stop == text || stop != end || v > 0xFFFF) return false;
    *value = uint32_t(v);
    return true;
}

// A tag from "KEY=VALUE": track and disc "N" or "N/M", compilation 0 or
// 1, anything else text. False for a malformed one.
bool ParseSetting(const char *setting, std::vector<std::string> *strings, MP4Tag *tag) {
    const char *equals = std::strchr(setting, '=');
    if (equals == nullptr || equals == setting) return false;
    strings->emplace_back(setting, equals);
    const char *value = equals + 1;
    *tag = MP4Tag{};
    const std::string &key = strings->back();
    if (key == "track" || key == "disc" || key == "compilation") {
        const char *slash = std::strchr(value, '/');
        uint32_t number = 0, total = 0;
        if (!Whole(value, slash != nullptr ? slash : value + std::strlen(value), &number)) return false;
        if (slash != nullptr && (key == "compilation" || !Whole(slash + 1, slash + 1 + std::strlen(slash + 1), &total)))
            return false;
        tag->Type = MP4_TAG_INTEGER;
        tag->Integer = number;
        tag->Total = total;
    } else if (key == "cover") {
        return false;
    } else {
        tag->Type = MP4_TAG_TEXT;
        tag->Value = reinterpret_cast<const uint8_t *>(value);
        tag->Size = uint32_t(std::strlen(value));
    }
    return true;
}

bool ReadFile(const char *path, std::vector<uint8_t> *bytes) {
    FILE *f = std::fopen(path, "rb");
    if (f == nullptr) return false;
    uint8_t block[65536];
    size_t got = 0;
    while ((got = std::fread(block, 1, sizeof block, f)) > 0) bytes->insert(bytes->end(), block, block + got);
    const bool ok = std::ferror(f) == 0;
    std::fclose(f);
    return ok;
}

// The movie's length in milliseconds from "mvhd".
uint64_t MovieMilliseconds(MP4_local_file *file) {
    const std::vector<uint8_t> h = Payload(file, "moov/mvhd");
    const bool wide = h.size() >= 32 && h[0] == 1;
    if (!wide && h.size() < 20) return 0;
    auto at = [&](size_t i, size_t n) {
        uint64_t v = 0;
        for (size_t k = 0; k < n; ++k) v = v << 8 | h[i + k];
        return v;
    };
    const uint64_t scale = wide ? at(20, 4) : at(12, 4), duration = wide ? at(24, 8) : at(16, 4);
    return scale == 0 ? 0 : uint64_t((unsigned __int128)duration * 1000 / scale);
}

// Chapters from lines "HH:MM:SS.mmm title"; false after a report.
bool ReadChapters(const char *path, uint64_t movieEnd, std::vector<std::string> *titles,
                  std::vector<MP4Chapter> *chapters) {
    std::vector<uint8_t> text;
    if (!ReadFile(path, &text)) return std::fprintf(stderr, "mp4core tag: can't read %s\n", path), false;
    text.push_back('\n');
    size_t line = 0;
    std::vector<uint64_t> starts;
    for (size_t at = 0; at < text.size();) {
        const size_t end = size_t(std::find(text.begin() + long(at), text.end(), '\n') - text.begin());
        std::string row(text.begin() + long(at), text.begin() + long(end));
        at = end + 1;
        ++line;
        if (!row.empty() && row.back() == '\r') row.pop_back();
        if (row.empty()) continue;
        unsigned h = 0, m = 0, s = 0, ms = 0;
        int used = 0;
        if (std::sscanf(row.c_str(), "%2u:%2u:%2u.%3u %n", &h, &m, &s, &ms, &used) != 4 || used == 0 || m > 59 ||
            s > 59 || row.size() <= size_t(used)) {
            std::fprintf(stderr, "mp4core tag: %s line %zu: not \"HH:MM:SS.mmm title\"\n", path, line);
            return false;
        }
        starts.push_back(((uint64_t(h) * 60 + m) * 60 + s) * 1000 + ms);
        titles->push_back(row.substr(size_t(used)));
    }
    for (size_t i = 0; i < starts.size(); ++i) {
        MP4Chapter c{};
        c.Start = starts[i];
        c.End = i + 1 < starts.size() ? starts[i + 1] : std::max(starts[i], movieEnd);
        c.Timescale = 1000;
        if (c.End < c.Start) {
            std::fprintf(stderr, "mp4core tag: %s: the chapters are not in time order\n", path);
            return false;
        }
        chapters->push_back(c);
    }
    for (size_t i = 0; i < chapters->size(); ++i) (*chapters)[i].Title = (*titles)[i].c_str();
    return true;
}

// The atoms the library writes for `tags` and `chapters`, from a scratch
// file in the folder of `path`; false after a report.
bool BuildScratch(const char *path, const std::vector<MP4Tag> &tags, const std::vector<MP4Chapter> *chapters,
                  MovieEdit *edit) {
    std::string scratch = std::string(path) + ".scratch-XXXXXX";
    const int fd = mkstemp(&scratch[0]);
    if (fd < 0) return std::fprintf(stderr, "mp4core tag: can't make a scratch file beside %s\n", path), false;
    close(fd);
    MP4_local_file *out = nullptr, *back = nullptr;
    uint32_t kept = 0;
    int32_t result = MP4FileNewEx(&out, scratch.c_str(), MP4_NEW_PROGRESSIVE);
    const char *call = "MP4FileNewEx";
    if (result == 1) {
        call = "MP4SetMetadata";
        // A tag given on the command line (no Source) must fit.
        for (const MP4Tag &tag : tags)
            if (result == 1 && tag.Source == nullptr && MP4SetMetadata(out, &tag, 1) != 1) {
                std::fprintf(stderr, "mp4core tag: %s: the value does not fit the key (a time takes ISO 8601, "
                             "\"2024-05-01T10:00:00Z\"; the keys: see --help)\n", tag.Key);
                result = -96;
                call = nullptr;
            }
        if (result == 1) result = SetWritableTags(out, tags, "tag", &kept);
        if (result == 1 && chapters != nullptr) {
            call = "MP4SetChapters";
            result = MP4SetChapters(out, chapters->data(), uint32_t(chapters->size()));
        }
        const int32_t flushed = MP4FileFlush(out);
        if (result == 1) call = "MP4FileFlush", result = flushed;
    }
    if (result == 1) {
        call = "MP4FileOpenEx";
        result = MP4FileOpenEx(&back, scratch.c_str(), MP4_TABLE_MARKS, MP4_OPEN_MODERN);
    }
    if (result == 1) {
        edit->UserData = Payload(back, "moov/udta");
        const std::vector<uint8_t> meta = Payload(back, "moov/meta");
        if (!meta.empty()) {
            const uint32_t size = uint32_t(meta.size() + 8);
            const uint8_t head[8] = {uint8_t(size >> 24), uint8_t(size >> 16), uint8_t(size >> 8), uint8_t(size),
                                     'm', 'e', 't', 'a'};
            edit->MovieMeta.assign(head, head + 8);
            edit->MovieMeta.insert(edit->MovieMeta.end(), meta.begin(), meta.end());
        }
        const std::vector<uint8_t> h = Payload(back, "moov/mvhd");
        auto at = [&](size_t i, size_t n) {
            uint64_t v = 0;
            for (size_t k = 0; k < n && i + k < h.size(); ++k) v = v << 8 | h[i + k];
            return v;
        };
        const bool wide = !h.empty() && h[0] == 1;
        edit->Created = wide ? at(4, 8) : at(4, 4);
        edit->Modified = wide ? at(12, 8) : at(8, 4);
        MP4FileClose(&back);
    }
    std::remove(scratch.c_str());
    return result == 1 || (call != nullptr && ReportFailure("tag", call, result) == 0);
}

// Keys the writer puts in QuickTime metadata by key ("moov/meta").
bool KeyedKey(const char *key) {
    for (const char *k : {"location", "make", "model", "software", "creation_time"})
        if (std::strcmp(key, k) == 0) return true;
    return std::strchr(key, '.') != nullptr && std::strchr(key, ':') == nullptr;
}

// The atoms of `atoms` whose type is one of `types`.
std::vector<uint8_t> Children(const std::vector<uint8_t> &atoms, std::initializer_list<std::string> types) {
    std::vector<uint8_t> kept;
    for (size_t at = 0; at + 8 <= atoms.size();) {
        const size_t size = size_t(atoms[at]) << 24 | size_t(atoms[at + 1]) << 16 | size_t(atoms[at + 2]) << 8 | atoms[at + 3];
        if (size < 8 || size > atoms.size() - at) break;
        const std::string type(reinterpret_cast<const char *>(&atoms[at + 4]), 4);
        if (std::find(types.begin(), types.end(), type) != types.end())
            kept.insert(kept.end(), atoms.begin() + long(at), atoms.begin() + long(at + size));
        at += size;
    }
    return kept;
}

bool Named(const std::vector<std::string> &keys, const char *key) {
    for (const std::string &k : keys)
        if (key != nullptr && k == key) return true;
    return false;
}

int RunTag(const Arguments &arguments) {
    // A link's target is edited (the rewrite renames over the real file).
    char resolved[PATH_MAX];
    const char *path = realpath(arguments.operands[0], resolved) != nullptr ? resolved : arguments.operands[0];
    // A write past the file size limit fails with EFBIG rather than
    // ending the process, so that the edit is undone.
    std::signal(SIGXFSZ, SIG_IGN);
    std::vector<std::string> strings, touched;
    strings.reserve(arguments.options.size() + 1);
    std::vector<MP4Tag> added;
    std::vector<uint8_t> cover;
    const char *coverPath = OptionValue(arguments, "--cover");
    for (const GivenOption &given : arguments.options) {
        if (std::strcmp(given.option->name, "--remove") == 0) touched.emplace_back(given.value);
        if (std::strcmp(given.option->name, "--set") != 0) continue;
        MP4Tag tag{};
        if (!ParseSetting(given.value, &strings, &tag)) {
            std::fprintf(stderr, "mp4core tag: --set %s: not KEY=VALUE (track and disc take N or N/M, compilation 0 or 1; a cover takes --cover)\n", given.value);
            return 2;
        }
        tag.Key = strings.back().c_str();
        touched.push_back(strings.back());
        added.push_back(tag);
    }
    if (coverPath != nullptr) {
        if (!ReadFile(coverPath, &cover) || cover.size() < 4)
            return std::fprintf(stderr, "mp4core tag: can't read the image %s\n", coverPath), 1;
        const bool jpeg = cover[0] == 0xFF && cover[1] == 0xD8, png = std::memcmp(cover.data(), "\x89PNG", 4) == 0;
        if (!jpeg && !png) return std::fprintf(stderr, "mp4core tag: %s is neither JPEG nor PNG\n", coverPath), 1;
        MP4Tag tag{};
        tag.Key = "cover";
        tag.Type = MP4_TAG_IMAGE;
        tag.Value = cover.data();
        tag.Size = uint32_t(cover.size());
        tag.Mime = jpeg ? "image/jpeg" : "image/png";
        touched.emplace_back("cover");
        added.push_back(tag);
    }

    MP4_local_file *in = nullptr;
    int32_t result = MP4FileOpenEx(&in, path, MP4_TABLE_MARKS, MP4_OPEN_MODERN);
    if (result != 1) return ReportFailure("tag", "MP4FileOpenEx", result, arguments.operands[0]);
    MP4Tag *tags = nullptr;
    uint32_t count = 0;
    result = MP4GetMetadata(in, &tags, &count);
    if (result != 1) {
        MP4FileClose(&in);
        return ReportFailure("tag", "MP4GetMetadata", result, arguments.operands[0]);
    }
    MovieEdit edit;
    // A list is written anew only when an edit touches it; "meta" atoms of
    // other kinds are never replaced.
    bool itunes = false, keyed = false;
    for (const std::string &key : touched) {
        const bool k = KeyedKey(key.c_str());
        keyed = keyed || k;
        itunes = itunes || (!k && key != "location" && key != "modification_time");
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (tags[i].TrackId != 0 || !Named(touched, tags[i].Key)) continue;
        itunes = itunes || StartsWith(tags[i].Source, "moov/udta/meta/");
        keyed = keyed || StartsWith(tags[i].Source, "moov/meta/");
    }
    const std::string userMeta = HandlerOf(in, "moov/udta/meta"), movieMeta = HandlerOf(in, "moov/meta");
    const bool ours[2] = {userMeta.empty() || userMeta == "mdir" || userMeta == "mdta",
                          movieMeta.empty() || movieMeta == "mdir" || movieMeta == "mdta"};
    if ((itunes && !ours[0]) || (keyed && !ours[1])) {
        MP4FreeMetadata(tags);
        MP4FileClose(&in);
        std::fprintf(stderr, "mp4core tag: %s: its \"meta\" of handler \"%s\" is not one this command writes; the file is unchanged\n",
                     arguments.operands[0], (itunes && !ours[0] ? userMeta : movieMeta).c_str());
        return 1;
    }
    edit.DropUserMeta = itunes;
    edit.DropMovieMeta = keyed;
    const bool place = Named(touched, "location");
    if (place) edit.DropUserData.emplace_back("\xA9xyz");
    std::vector<MP4Tag> next;
    for (uint32_t i = 0; i < count; ++i) {
        const MP4Tag &tag = tags[i];
        if (tag.TrackId != 0) continue;
        if (Named(touched, tag.Key)) {
            // A "udta" string of another kind is dropped whole.
            const char *name = std::strrchr(tag.Source, '/');
            if (StartsWith(tag.Source, "moov/udta/") && name != nullptr && std::strlen(name) == 5 && !Rewritten(tag))
                edit.DropUserData.emplace_back(name + 1, 4);
            continue;
        }
        if ((StartsWith(tag.Source, "moov/udta/meta/") && itunes) || (StartsWith(tag.Source, "moov/meta/") && keyed))
            next.push_back(tag);
    }
    next.insert(next.end(), added.begin(), added.end());
    edit.SetCreated = Named(touched, "creation_time");
    edit.SetModified = Named(touched, "modification_time");

    const char *chapterPath = OptionValue(arguments, "--chapters");
    std::vector<std::string> titles;
    std::vector<MP4Chapter> chapters;
    bool ok = true;
    if (chapterPath != nullptr) {
        ok = ReadChapters(chapterPath, MovieMilliseconds(in), &titles, &chapters);
        edit.DropUserData.emplace_back("chpl");
        edit.DropTracks = ChapterTrackIds(in);
    }
    ok = ok && BuildScratch(path, next, chapterPath != nullptr ? &chapters : nullptr, &edit);
    // Of the scratch file's atoms, those that replace the ones dropped.
    edit.UserData = Children(edit.UserData, {itunes ? "meta" : "", place ? "\xA9xyz" : "", chapterPath != nullptr ? "chpl" : ""});
    if (!keyed) edit.MovieMeta.clear();
    const size_t tagCount = next.size();
    MP4FreeMetadata(tags);
    MP4FileClose(&in);
    EditWay way = EditWay::InPlace;
    if (!ok || !EditMovieFile(path, arguments.operands[0], edit, &way)) return 1;
    std::printf("%s: %zu tags written%s, %s\n", arguments.operands[0], tagCount,
                chapterPath != nullptr ? (" and " + std::to_string(chapters.size()) + " chapters").c_str() : "",
                way == EditWay::InPlace ? "in place (free space behind \"moov\")"
                                        : "by rewriting the file (atoms copied as they were)");
    return 0;
}

constexpr OperandRow kOperands[] = {{"FILE", "the MP4 file to edit"}};

constexpr OptionRow kOptions[] = {
    {"--set", "KEY=VALUE", false, true, "set a tag (title, artist, album, date, track=N/M, location, ...)"},
    {"--remove", "KEY", false, true, "remove every tag of this key"},
    {"--cover", "IMAGE", false, false, "set the cover to this JPEG or PNG file"},
    {"--chapters", "FILE", false, false, "set the chapters: one a line, \"HH:MM:SS.mmm title\" (empty: none)"},
};

}  // namespace

extern const CommandRow kTagCommand = {
    "tag",
    "set or remove the tags, cover and chapters of an MP4 file",
    kOperands, CountOf(kOperands), kOptions, CountOf(kOptions),
    "\nReads the file's tags (MP4GetMetadata), applies the edits, and has the\n"
    "library write anew what they touch: the iTunes items (moov/udta/meta), the\n"
    "QuickTime keys (moov/meta; location, make, model, software, creation_time\n"
    "and dotted keys), the location (\xC2\xA9xyz), the chapters (chpl; a chapter\n"
    "track of the file is removed). creation_time and\n"
    "modification_time also set the \"mvhd\" times. Every other atom is kept\n"
    "byte for byte. The new \"moov\" goes into free space behind the old one\n"
    "when there is room (or the file ends with it) and is made live by one\n"
    "write of the old one's head; otherwise the file is written anew beside\n"
    "itself (chunk and fragment offsets moved) and renamed over the original.\n"
    "KEY is a common key (title, artist, album_artist, album, date, genre,\n"
    "comment, composer, copyright, description, encoder, track, disc,\n"
    "compilation, location, make, model, software, creation_time,\n"
    "modification_time), MEAN:NAME (a freeform item), a dotted QuickTime key,\n"
    "or a four-character item name; times are ISO 8601.\n"
    "A failed or interrupted edit leaves the file as it was. Prints how the\n"
    "file was edited; exits 1 on a failure, 2 on a usage error.\n",
    RunTag,
};
