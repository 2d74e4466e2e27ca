// Tags and chapters carried from one file to a write handle through the
// public calls (remux, tag).
#pragma once

#include <cstdint>
#include <vector>

#include "mp4core.h"

// The IDs of the chapter tracks of a read handle: those a "tref" "chap"
// of any track names.
std::vector<uint32_t> ChapterTrackIds(MP4_local_file *in);

// Whether the writer can hold a read tag as the file held it: a file's tag
// (TrackId 0) from an iTunes or keyed list, or of a common key from any
// place ("title" from a 3GPP "titl", "creation_time" from "mvhd"). Own
// keys of other places ("titl", "\xC2\xA9xyz", "mvhd.creation_time") are
// not: the writer would make iTunes items or keys of them.
bool CarriedTag(const MP4Tag &tag);

// Sets `tags` on a write handle with MP4SetMetadata. A tag the writer
// refuses (-96: a key it has no place for) is left out and named on
// standard error after "mp4core COMMAND: "; `kept` receives how many were
// set. The call's result: 1, or its failure other than a refused tag.
int32_t SetWritableTags(MP4_local_file *out, const std::vector<MP4Tag> &tags, const char *command,
                        uint32_t *kept);
