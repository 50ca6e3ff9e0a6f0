// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What can be done with a file's identifier: compare it, write it as text, keep it in a database
// row.
//
//   24 bytes      a1 b2 c3 d4 e5 f6 ...
//   text form     "a1b2c3d4e5f6..."     48 lower-case digits, byte 0 first
//   column form   0xf6e5d4c3b2a1, ...   4 numbers of 48 bits, 6 bytes each, lowest byte first
//   order         3 unsigned 64-bit words in the host's byte order, word 0 first
//
// Also the kind of file that a mode speaks of, as catalogues store it.
//
// Threads: all functions are reentrant. Failures: only str2fid fails. Pointers are not checked for
// null anywhere.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "platform/export.h"
#include "platform/file_id.h"

KDDC_API bool operator==(const fsf_fid& a, const fsf_fid& b) noexcept;
// On a little-endian host byte 7 weighs more than byte 0. The order is good for maps, and means
// nothing else.
KDDC_API bool operator<(const fsf_fid& a, const fsf_fid& b) noexcept;

// Writes the text form and a NUL, 49 bytes in all, to `out` and returns `out`.
extern "C" KDDC_API char* fid2hex(const fsf_fid* fid, char* out) noexcept;

// Reads the text form, in lower or upper case. A character that is no hexadecimal digit is not
// refused: it counts as its code minus 48 and the byte keeps the low 8 bits of what comes out. 47
// digits are taken too, the last byte is then the lone digit's value. Throws KdException, code -1:
//   Invalid FID "": too short.     the text ended before the 24th byte
//   Invalid FID "<rest>": too long.     with the characters behind the 48th
KDDC_API fsf_fid str2fid(const char* text);

// Stores the column form in (*out)[0] to (*out)[3]; the caller owns the array.
KDDC_API void GetIntForBlob(const fsf_fid* fid, unsigned long long** out) noexcept;
// The inverse: takes the low 48 bits of in[0] to in[3].
KDDC_API void GetBlobForInt(const unsigned long long* in, fsf_fid* out) noexcept;

// The file type code of a mode (st_mode): 0 regular file, 1 folder, 2 symbolic link, 3 character
// device, 4 block device, 5 FIFO, 6 socket, 7 anything else. Code 8, a stub, is no matter of modes.
KDDC_API int GetFileType(unsigned int mode) noexcept;

namespace kddc {

// For unordered containers, which find an identifier in less time than ordered ones compare it.
struct FidHash {
  std::size_t operator()(const fsf_fid& fid) const noexcept {
    return std::hash<std::string_view>()(
        {reinterpret_cast<const char*>(fid.data), sizeof fid.data});
  }
};

// The text form as a string, for log lines.
inline std::string fid2str(const fsf_fid& fid) {
  char text[2 * sizeof fid.data + 1];
  return fid2hex(&fid, text);
}

}  // namespace kddc
