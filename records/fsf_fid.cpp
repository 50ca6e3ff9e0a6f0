// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "records/fsf_fid.h"

#include <sys/stat.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include "platform/exceptions.h"

namespace {

constexpr std::size_t kBytesPerColumn = 6;
constexpr std::size_t kColumns = sizeof(fsf_fid) / kBytesPerColumn;
constexpr unsigned long long kColumnMask = 0xffffffffffff;

// In the host's byte order: what orders a map is never stored.
using Words = std::array<std::uint64_t, 3>;
Words words(const fsf_fid& fid) {
  return std::bit_cast<Words>(fid);
}

// Not std::tolower, whose answer depends on the process's locale.
int digitValue(char c) {
  if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : c - '0';
}

KdException invalid(const char* rest, const char* complaint, int line) {
  return KdException("str2fid", std::string("Invalid FID \"") + rest + "\": " + complaint,
                     "db_access", line, -1);
}

}  // namespace

bool operator==(const fsf_fid& a, const fsf_fid& b) noexcept {
  return words(a) == words(b);
}

bool operator<(const fsf_fid& a, const fsf_fid& b) noexcept {
  return words(a) < words(b);
}

char* fid2hex(const fsf_fid* fid, char* out) noexcept {
  static constexpr char kDigits[] = "0123456789abcdef";
  char* at = out;
  for (const unsigned char byte : fid->data) {
    *at++ = kDigits[byte >> 4];
    *at++ = kDigits[byte & 0xf];
  }
  *at = '\0';
  return out;
}

fsf_fid str2fid(const char* text) {
  fsf_fid fid;
  for (unsigned char& byte : fid.data) {
    if (*text == '\0') throw invalid(text, "too short.", __LINE__);
    int value = digitValue(*text++);
    // The text may end between the two digits; it is not read beyond its NUL.
    if (*text != '\0') value = (value << 4) | digitValue(*text++);
    byte = static_cast<unsigned char>(value);
  }
  if (*text != '\0') throw invalid(text, "too long.", __LINE__);
  return fid;
}

// Columns are numbers, lowest byte first: on a little-endian host that is a copy.
static_assert(std::endian::native == std::endian::little);

// Whole words, of which six bytes count: a copy of six into a word that is then read whole makes
// the processor wait. The last word begins earlier, for it must not reach beyond the identifier.
void GetIntForBlob(const fsf_fid* fid, unsigned long long** out) noexcept {
  const auto wordAt = [fid](std::size_t offset) {
    unsigned long long word;
    std::memcpy(&word, fid->data + offset, sizeof word);
    return word;
  };
  for (std::size_t i = 0; i < kColumns - 1; ++i)
    (*out)[i] = wordAt(i * kBytesPerColumn) & kColumnMask;
  (*out)[kColumns - 1] = wordAt(sizeof fid->data - sizeof(unsigned long long)) >> 16;
}

void GetBlobForInt(const unsigned long long* in, fsf_fid* out) noexcept {
  for (std::size_t i = 0; i < kColumns; ++i)
    std::memcpy(out->data + i * kBytesPerColumn, &in[i], kBytesPerColumn);
}

int GetFileType(unsigned int mode) noexcept {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return 0;
    case S_IFDIR:
      return 1;
    case S_IFLNK:
      return 2;
    case S_IFCHR:
      return 3;
    case S_IFBLK:
      return 4;
    case S_IFIFO:
      return 5;
    case S_IFSOCK:
      return 6;
    default:
      return 7;
  }
}
