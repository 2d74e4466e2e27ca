// Initial object descriptor: the fixed template, written and read back.
#pragma once

#include <cstddef>
#include <cstdint>

// A configuration block inside the descriptor holds at most this many
// bytes; the two together stay below kIodMaxBlockTotal.
constexpr uint32_t kIodMaxBlockBytes = 100;
constexpr uint32_t kIodMaxBlockTotal = 200;

// Bytes of the output buffer that EncryptMp4Iod keeps in the handle.
size_t IodBufferBytes();

// Results of EncryptMp4Iod besides its byte count.
constexpr int32_t kEncryptBadArguments = -99;
constexpr int32_t kEncryptNoMemory = -98;
constexpr int32_t kEncryptBlockTooLarge = -97;

// Results of DecryptMp4Iod.
constexpr int32_t kDecryptDone = 1;
constexpr int32_t kDecryptNoVideoBlock = 0;
constexpr int32_t kDecryptBadArguments = -99;
constexpr int32_t kDecryptBlockTooLarge = -98;
constexpr int32_t kDecryptNoMemory = -97;
