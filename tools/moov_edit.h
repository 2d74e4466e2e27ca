// The edit of `mp4core tag`: a file's "moov" rebuilt with some of its
// metadata atoms replaced, every other atom kept byte for byte, and the
// result made live without ever leaving a damaged file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct MovieEdit {
    std::vector<uint8_t> UserData;      // atoms added to "moov/udta" (behind those kept)
    std::vector<std::string> DropUserData;  // types of "moov/udta" children left out
    bool DropUserMeta = false;          // "moov/udta/meta" left out
    std::vector<uint8_t> MovieMeta;     // a whole "meta" atom added to "moov"
    bool DropMovieMeta = false;         // the old "moov/meta" left out
    std::vector<uint32_t> DropTracks;   // tracks left out, with the "chap" references to them
    bool SetCreated = false, SetModified = false;  // "mvhd" times
    uint64_t Created = 0, Modified = 0;
};

// How EditMovieFile made the edit live.
enum class EditWay { InPlace, Rewritten };

// Edits the file at `path`: in place when the new "moov" fits free space
// behind the old one (a "free" atom after it, or the end of the file),
// made live by one 8-byte write of the old "moov" head; else the file is
// written anew beside it and renamed over it. True on success; false
// after a message on standard error that names the file `shown`, the file
// as it was.
bool EditMovieFile(const char *path, const char *shown, const MovieEdit &edit, EditWay *way);
