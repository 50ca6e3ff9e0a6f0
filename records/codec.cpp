// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Size, encoder, decoder and check of journal records: each is a visitor of the payload's layout.
#include <bit>
#include <cstdint>
#include <cstring>

#include "records/record_layout.h"

namespace {

constexpr unsigned int kHeaderSize = 26;
constexpr unsigned int kLengthMask = 0xffffff;
constexpr unsigned int kFidSize = sizeof(fsf_fid);
constexpr unsigned int kTimeSize = 8;

std::uint16_t swapped(std::uint16_t value) {
  return __builtin_bswap16(value);
}
std::uint32_t swapped(std::uint32_t value) {
  return __builtin_bswap32(value);
}
std::uint64_t swapped(std::uint64_t value) {
  return __builtin_bswap64(value);
}

// From the host's byte order to the record's, or back.
template <class Integer>
Integer bigEndian(Integer value) {
  return std::endian::native == std::endian::little ? swapped(value) : value;
}

// A whole word and one swap: a loop over its bytes takes several times as long.
template <class Integer>
Integer load(const unsigned char* at) {
  Integer value;
  std::memcpy(&value, at, sizeof value);
  return bigEndian(value);
}

template <class Integer, class Value>
void store(unsigned char* at, Value value) {
  const Integer word = bigEndian(static_cast<Integer>(value));
  std::memcpy(at, &word, sizeof word);
}

// Command and length share the first four bytes.
void storeCmdAndLength(unsigned char* bytes, unsigned int cmd, std::size_t length) {
  store<std::uint32_t>(bytes, cmd << 24 | (length & kLengthMask));
}

using kddc::As;

// The visitors. Every method is handed the field's name first and, where people may want another
// one than the usual, its form last: both serve dumps, and cost nothing where they are not used.

// A count of 32 bits may wrap, as the encoder's 24-bit length does: neither is a bound to rely on.
struct SizeOf {
  unsigned int bytes = kHeaderSize;

  void fid(const char*, const fsf_fid&) { bytes += kFidSize; }
  void byte(const char*, unsigned int) { bytes += 1; }
  void u32(const char*, unsigned int, As = As::kDecimal) { bytes += 4; }
  void u64(const char*, unsigned long long, As = As::kDecimal) { bytes += 8; }
  void time(const char*, const FlrJrnTime&) { bytes += kTimeSize; }
  void text(const char*, const char* s) { bytes += static_cast<unsigned int>(std::strlen(s)) + 1; }
  void block(const char*, const unsigned char*, unsigned int count, As) { bytes += count; }
  void none(unsigned char) {}
};

// Writes the payload, and ends behind its last byte: the record's length follows from that.
struct Encoder {
  unsigned char* at;
  FlrJrnCopyFn copy;
  void* ctx;
  int status = 0;

  void fid(const char*, const fsf_fid& fid) { put(fid.data, kFidSize); }
  void byte(const char*, unsigned int value) { *at++ = static_cast<unsigned char>(value); }
  void u32(const char*, unsigned int value, As = As::kDecimal) { put<std::uint32_t>(value); }
  void u64(const char*, unsigned long long value, As = As::kDecimal) { put<std::uint64_t>(value); }
  void time(const char*, const FlrJrnTime& time) {
    put<std::uint32_t>(time.tv_sec);
    put<std::uint32_t>(time.tv_nsec);
  }
  void text(const char*, const char* s) { put(s, std::strlen(s) + 1); }
  void block(const char*, const unsigned char* data, unsigned int count, As) {
    if (!copy) return put(data, count);
    status = copy(at, data, count, ctx);
    at += count;
  }
  void none(unsigned char) {}

 private:
  template <class Integer, class Value>
  void put(Value value) {
    store<Integer>(at, value);
    at += sizeof(Integer);
  }
  void put(const void* data, std::size_t count) {
    if (count != 0) std::memcpy(at, data, count);  // an empty block may be a null pointer
    at += count;
  }
};

// Reads a payload that is known to be whole. Names and data stay where they are: every record of a
// busy volume passes here.
struct Decoder {
  const unsigned char* at;

  void fid(const char*, fsf_fid& fid) { std::memcpy(fid.data, take(kFidSize), kFidSize); }
  template <class Integer>
  void byte(const char*, Integer& value) {
    value = *take(1);
  }
  void u32(const char*, unsigned int& value, As = As::kDecimal) {
    value = load<std::uint32_t>(take(4));
  }
  void u64(const char*, unsigned long long& value, As = As::kDecimal) {
    value = load<std::uint64_t>(take(8));
  }
  void time(const char*, FlrJrnTime& time) {
    time.tv_sec = load<std::uint32_t>(take(4));
    time.tv_nsec = load<std::uint32_t>(take(4));
  }
  void text(const char*, const char*& s) {
    s = reinterpret_cast<const char*>(at);
    at += std::strlen(s) + 1;
  }
  void block(const char*, const unsigned char*& data, unsigned int count, As) {
    data = take(count);
  }
  void none(unsigned char& value) { value = 0; }

 private:
  const unsigned char* take(std::size_t count) {
    const unsigned char* taken = at;
    at += count;
    return taken;
  }
};

// Steps over a payload of `left` bytes. Behind a field that does not fit nothing is left, so that
// nothing more is read. Of the fields it keeps only the 32-bit ones: they may count a block.
struct Checker {
  const unsigned char* at;
  std::size_t left;
  bool fits = true;

  void fid(const char*, const fsf_fid&) { skip(kFidSize); }
  template <class Integer>
  void byte(const char*, const Integer&) {
    skip(1);
  }
  void u32(const char*, unsigned int& value, As = As::kDecimal) {
    const unsigned char* field = at;
    value = skip(4) ? load<std::uint32_t>(field) : 0;
  }
  void u64(const char*, const unsigned long long&, As = As::kDecimal) { skip(8); }
  void time(const char*, const FlrJrnTime&) { skip(kTimeSize); }
  void text(const char*, const char* const&) {
    const auto* nul = static_cast<const unsigned char*>(std::memchr(at, '\0', left));
    skip(nul ? static_cast<std::size_t>(nul - at) + 1 : kEndless);
  }
  void block(const char*, const unsigned char* const&, unsigned int count, As) { skip(count); }
  void none(const unsigned char&) {}

  bool filled() const { return fits && left == 0; }

 private:
  static constexpr std::size_t kEndless = SIZE_MAX;

  bool skip(std::size_t count) {
    if (count > left) {
      fits = false;
      left = 0;
      return false;
    }
    at += count;
    left -= count;
    return true;
  }
};

}  // namespace

void encodeRawHdr(const FlrJrnHdrRaw* header, unsigned char* bytes) noexcept {
  storeCmdAndLength(bytes, header->cmd, header->length);
  store<std::uint64_t>(bytes + 4, header->devt);
  store<std::uint64_t>(bytes + 12, header->seq_num);
  store<std::uint32_t>(bytes + 20, header->timestamp);
  store<std::uint16_t>(bytes + 24, header->mask);
}

void decodeRawHdr(const unsigned char* bytes, FlrJrnHdrRaw* header) noexcept {
  if (!bytes || !header) return;
  header->cmd = bytes[0];
  header->length = load<std::uint32_t>(bytes) & kLengthMask;
  header->devt = load<std::uint64_t>(bytes + 4);
  header->seq_num = load<std::uint64_t>(bytes + 12);
  header->timestamp = load<std::uint32_t>(bytes + 20);
  header->mask = load<std::uint16_t>(bytes + 24);
}

int __encodeRawCmd(const FlrJrnCommandRaw* record, unsigned char* bytes, FlrJrnCopyFn copy,
                   void* ctx) noexcept {
  if (!record || !bytes) return -1;
  // A callback that looks at the header finds a length of 0: it is known only at the end.
  const FlrJrnHdrRaw header{record->cmd,       0,           record->devt, record->seq_num,
                            record->timestamp, record->mask};
  encodeRawHdr(&header, bytes);
  if (record->cmd == FLR_JRN_SETXATTR_AIX) copy = nullptr;  // its producers rely on a plain copy
  Encoder encoder{bytes + kHeaderSize, copy, ctx};
  kddc::visitPayload(encoder, *record);
  storeCmdAndLength(bytes, record->cmd, static_cast<std::size_t>(encoder.at - bytes));
  return encoder.status;
}

int encodeRawCmd(const FlrJrnCommandRaw* record, unsigned char* bytes) noexcept {
  return __encodeRawCmd(record, bytes, nullptr, nullptr);
}

int decodeRawCmd(const unsigned char* bytes, FlrJrnCommandRaw* record) noexcept {
  if (!bytes || !record) return -1;
  FlrJrnHdrRaw header;
  decodeRawHdr(bytes, &header);
  // Before the command is looked up: a caller can then tell which record it could not read.
  record->cmd = header.cmd;
  record->timestamp = header.timestamp;
  record->seq_num = header.seq_num;
  record->devt = header.devt;
  record->mask = header.mask;
  Decoder decoder{bytes + kHeaderSize};
  return kddc::visitPayload(decoder, *record) ? 0 : -1;
}

unsigned int getRawCmdSize(const FlrJrnCommandRaw* record) noexcept {
  SizeOf size;
  return record && kddc::visitPayload(size, *record) ? size.bytes : 0;
}

bool kddc::isWellFormedRecord(const unsigned char* bytes, std::size_t available) noexcept {
  if (!bytes || available < kHeaderSize) return false;
  FlrJrnHdrRaw header;
  decodeRawHdr(bytes, &header);
  if (header.length < kHeaderSize || header.length > available) return false;
  // A scratch record: of its payload nothing is read that the checker has not stored.
  FlrJrnCommandRaw record;
  record.cmd = header.cmd;
  Checker checker{bytes + kHeaderSize, header.length - kHeaderSize};
  return visitPayload(checker, record) && checker.filled();
}
