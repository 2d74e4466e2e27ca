// Media description: the MPEG-4 video header parser, the walk through an
// "esds" atom's descriptors, and the bit field reader they share with the
// file summary.
#pragma once

#include <cstddef>
#include <cstdint>

// Parses a video object start code directly followed by a video object
// layer header, from `data`, reading at most `length` bytes. `width` and
// `height` are written once the parse reaches them, `headerSize` only on
// result 1. Results: 1; -1 not rectangular or ran out of input; -2 sprite
// warping points or static sprites; -3 not 8 bits; -5 complexity
// estimation; -6 newpred; -7 reduced resolution.
int32_t ParseVolHeader(const uint8_t *data, size_t length, uint32_t *width, uint32_t *height,
                       uint32_t *headerSize);
