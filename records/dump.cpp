// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The text form of journal records: one more visitor of the payload's layout.
//
//   cmd.............. FLR_JRN_MKDIR
//   timestamp........ 1000
//   short_name....... a
//   atime............ (1, 2)
//
// Readers of old logs and tools know these lines, so they stay as they are: integers in decimal are
// signed, whatever they mean, and names and data come byte for byte.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "records/record_layout.h"

namespace {

using kddc::As;

constexpr char kDots[] = ".................";
constexpr int kColumn = sizeof kDots - 1;  // labels are filled up to it

constexpr unsigned int kPreviewBytes = 60;
constexpr char kPreviewEnd[] = "...";

// Writes line after line as far as the room goes. One byte of `room` is always left for the NUL.
class Printer {
 public:
  Printer(char* out, unsigned int size) : at_(out), room_(size) {}

  void line(const char* label, const char* value) { print(label, "%s", value); }
  template <class... Values>
  void print(const char* label, const char* format, Values... values) {
    const int length = static_cast<int>(std::strlen(label));
    advance(std::snprintf(at_, room_, "%s%s%.*s ", separator_, label, kColumn - length, kDots));
    separator_ = "\n";
    advance(std::snprintf(at_, room_, format, values...));
  }

  void fid(const char* label, const fsf_fid& fid) {
    char digits[2 * sizeof fid.data + 1];
    line(label, fid2hex(&fid, digits));
  }
  void byte(const char* label, unsigned int value) { u32(label, value); }
  void u32(const char* label, unsigned int value, As as = As::kDecimal) {
    if (as == As::kOctal)
      print(label, "%o", value);
    else if (as == As::kHex)
      print(label, "0x%x", value);
    else
      print(label, "%d", static_cast<int>(value));
  }
  void u64(const char* label, unsigned long long value, As as = As::kDecimal) {
    if (as == As::kHex)
      print(label, "0x%llx", value);
    else
      print(label, "%lld", static_cast<long long>(value));
  }
  void time(const char* label, const FlrJrnTime& time) {
    print(label, "(%lld, %lld)", time.tv_sec, time.tv_nsec);
  }
  void text(const char* label, const char* value) { line(label, value); }
  void block(const char* label, const unsigned char* data, unsigned int count, As as) {
    if (as != As::kPreview) return;
    // A text like the others: a NUL among the data ends it, and the three dots with it.
    char preview[kPreviewBytes + sizeof kPreviewEnd];
    const unsigned int shown = std::min(count, kPreviewBytes);
    if (shown != 0) std::memcpy(preview, data, shown);
    std::memcpy(preview + shown, kPreviewEnd, sizeof kPreviewEnd);
    line(label, preview);
  }
  void none(unsigned char) {}

 private:
  // Behind what a printf made of `length` characters, of which it wrote those that fit.
  void advance(int length) {
    const unsigned int written =
        std::min(static_cast<unsigned int>(std::max(length, 0)), room_ - 1);
    at_ += written;
    room_ -= written;
  }

  char* at_;
  unsigned int room_;
  const char* separator_ = "";
};

}  // namespace

char* printRawCmd(char* out, unsigned int size, const FlrJrnCommandRaw* record) noexcept {
  Printer printer(out, size);
  printer.line("cmd", kddc::commandName(record->cmd));
  printer.print("timestamp", "%ld", static_cast<long>(record->timestamp));
  printer.u64("seq_num", record->seq_num);
  printer.u64("devt", record->devt, As::kHex);
  printer.print("mask", "0x%02x", record->mask);
  kddc::visitPayload(printer, *record);
  char* last = out + size - 1;
  *last = '\0';
  return last;
}
