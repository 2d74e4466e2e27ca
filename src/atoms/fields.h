// Byte offsets of the fields in atom records. Records hold the atom's head
// exactly as the file has it, big-endian; offsets count from the atom's
// first byte (its size field). Read with GetBE32/GetBE16, write with
// PutBE32/PutBE16 (frame/frame.h).
#pragma once

#include <cstddef>
#include <cstdint>

namespace field {

// Every head.
constexpr size_t kHeadSize = 0;
constexpr size_t kHeadName = 4;
constexpr size_t kVersionFlags = 8;

// "ftyp"
constexpr size_t kFtypMajorBrand = 8;
constexpr size_t kFtypMinorVersion = 12;
constexpr size_t kFtypCompatibleBrand = 16;

// "mvhd"
constexpr size_t kMvhdCreationTime = 12;
constexpr size_t kMvhdModificationTime = 16;
constexpr size_t kMvhdTimescale = 20;
constexpr size_t kMvhdDuration = 24;
constexpr size_t kMvhdRate = 28;
constexpr size_t kMvhdVolume = 32;
constexpr size_t kMvhdMatrix = 44;
constexpr size_t kMvhdNextTrackId = 104;

// "tkhd"
constexpr size_t kTkhdCreationTime = 12;
constexpr size_t kTkhdModificationTime = 16;
constexpr size_t kTkhdTrackId = 20;
constexpr size_t kTkhdDuration = 28;
constexpr size_t kTkhdVolume = 44;
constexpr size_t kTkhdMatrix = 48;
constexpr size_t kTkhdWidth = 84;
constexpr size_t kTkhdHeight = 88;
constexpr uint32_t kTkhdEnabled = 0x000001;  // in the flags at kVersionFlags

// "mdhd"
constexpr size_t kMdhdCreationTime = 12;
constexpr size_t kMdhdModificationTime = 16;
constexpr size_t kMdhdTimescale = 20;
constexpr size_t kMdhdDuration = 24;

// "hdlr"
constexpr size_t kHdlrHandlerType = 16;

// "stsd", "dref"
constexpr size_t kEntryCount = 12;

// Visual sample entries "mp4v", "s263"
constexpr size_t kVisualDataReferenceIndex = 14;
constexpr size_t kVisualWidth = 32;
constexpr size_t kVisualHeight = 34;
constexpr size_t kVisualHorizontalResolution = 36;
constexpr size_t kVisualVerticalResolution = 40;
constexpr size_t kVisualFrameCount = 48;
constexpr size_t kVisualDepth = 82;
constexpr size_t kVisualColorTable = 84;

// Audio sample entries "mp4a", "samr", "sawb"
constexpr size_t kAudioDataReferenceIndex = 14;
constexpr size_t kAudioVersion = 16;  // QuickTime sound description version
constexpr size_t kAudioChannelCount = 24;
constexpr size_t kAudioSampleBits = 26;
constexpr size_t kAudioCompressionId = 28;  // QuickTime: -2 for compressed sound
constexpr size_t kAudioSampleRate = 32;
// QuickTime's version 1 sound description, behind the fields above.
constexpr size_t kAudioV1BytesPerFrame = 44;
// QuickTime's version 2 sound description, behind the fields above (the
// record ends before them): rate as a 64-bit float, channels, bits per
// channel and the format flags of "lpcm".
constexpr size_t kAudioV2SampleRate = 40;
constexpr size_t kAudioV2ChannelCount = 48;
constexpr size_t kAudioV2BitsPerChannel = 56;
constexpr size_t kAudioV2FormatFlags = 60;

// "mp4s"
constexpr size_t kMp4sDataReferenceIndex = 14;

// "esds": raw descriptor bytes from here on
constexpr size_t kEsdsDescriptors = 12;

// Tables: "stts", "ctts", "stsc", "stco", "co64", "stss", "stsh", "stdp",
// "elst" have EntryCount at 12; "stsz" has SampleSize at 12 and
// SampleCount at 16.
constexpr size_t kTableEntryCount = 12;
constexpr size_t kStszSampleSize = 12;
constexpr size_t kStszSampleCount = 16;
// "stz2": the field size in bits (4, 8 or 16) in the last byte of the
// reserved word; the count at 16 as in "stsz".
constexpr size_t kStz2FieldSize = 15;

// Version 1 of "mvhd", "tkhd", "mdhd": 64-bit times push the fields behind
// them by 4 or 12 bytes.
constexpr size_t kMvhdTimescaleV1 = 28;
constexpr size_t kTkhdTrackIdV1 = 28;
constexpr size_t kTkhdMatrixV1 = 60;
constexpr size_t kTkhdWidthV1 = 96;
constexpr size_t kTkhdHeightV1 = 100;
constexpr size_t kMdhdTimescaleV1 = 28;
constexpr size_t kMdhdDurationV1 = 32;
constexpr size_t kMdhdLanguage = 28;
constexpr size_t kMdhdLanguageV1 = 40;

// Protection: "frma" original format, "schm" scheme type.
constexpr size_t kFrmaFormat = 8;
constexpr size_t kSchmType = 12;
// Colour of a visual sample entry. "colr": the colour type ("nclx", "nclc"
// or an ICC profile's "rICC"/"prof"), then the coded primaries, transfer
// and matrix, and for "nclx" the full-range flag in the top bit.
constexpr size_t kColrType = 8;
constexpr size_t kColrPrimaries = 12;
constexpr size_t kColrTransfer = 14;
constexpr size_t kColrMatrix = 16;
constexpr size_t kColrRange = 18;
// "mdcv": three display primaries and the white point (x, y as u16 each),
// then the maximum and minimum luminance (u32 each).
constexpr size_t kMdcvPrimaries = 8;
constexpr size_t kMdcvWhitePoint = 20;
constexpr size_t kMdcvMaxLuminance = 24;
constexpr size_t kMdcvMinLuminance = 28;
// "clli": maximum content light level and maximum frame-average light level.
constexpr size_t kClliMaxCll = 8;
constexpr size_t kClliMaxFall = 10;
// "pasp"
constexpr size_t kPaspH = 8;
constexpr size_t kPaspV = 12;

// Fragments. "trex": the defaults of a track's samples in fragments.
constexpr size_t kTrexTrackId = 12;
constexpr size_t kTrexDescriptionIndex = 16;
constexpr size_t kTrexDuration = 20;
constexpr size_t kTrexSize = 24;
constexpr size_t kTrexFlags = 28;
// "mfhd" sequence number, "tfhd" track ID, "trun" sample count, "tfdt"
// base media decode time (32 bits, 64 in version 1), "mehd" fragment
// duration (likewise).
constexpr size_t kMfhdSequence = 12;
constexpr size_t kTfhdTrackId = 12;
constexpr size_t kTrunSampleCount = 12;
constexpr size_t kTfdtDecodeTime = 12;
constexpr size_t kMehdDuration = 12;
// "tfra": the track, the byte lengths of the traf, trun and sample numbers
// of its entries (two bits each, less one, in the low six bits), and the
// count of the entries behind. "mfro": the size of the whole "mfra".
constexpr size_t kTfraTrackId = 12;
constexpr size_t kTfraLengthSizes = 16;
constexpr size_t kTfraEntryCount = 20;
constexpr size_t kMfroSize = 12;

}  // namespace field

// The flags of "tfhd" and "trun" that switch fields on (the catalogue's
// flagged layouts list the fields), and those that only mean something.
namespace flag {

constexpr uint32_t kTfhdBaseDataOffset = 0x000001;       // 64 bits
constexpr uint32_t kTfhdDescriptionIndex = 0x000002;
constexpr uint32_t kTfhdDefaultDuration = 0x000008;
constexpr uint32_t kTfhdDefaultSize = 0x000010;
constexpr uint32_t kTfhdDefaultFlags = 0x000020;
constexpr uint32_t kTfhdDurationIsEmpty = 0x010000;
constexpr uint32_t kTfhdDefaultBaseIsMoof = 0x020000;

constexpr uint32_t kTrunDataOffset = 0x000001;           // signed 32 bits
constexpr uint32_t kTrunFirstSampleFlags = 0x000004;
constexpr uint32_t kTrunDuration = 0x000100;
constexpr uint32_t kTrunSize = 0x000200;
constexpr uint32_t kTrunFlags = 0x000400;
constexpr uint32_t kTrunCompositionOffset = 0x000800;   // signed in version 1

// In a sample's flags: the sample is not a sync sample; it depends on
// other samples (a predicted picture), or on none (an intra picture).
constexpr uint32_t kSampleIsNonSync = 0x00010000;
constexpr uint32_t kSampleDependsOnOthers = 0x01000000;
constexpr uint32_t kSampleDependsOnNone = 0x02000000;

}  // namespace flag
