// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/record_text.h"

#include <cstring>
#include <iterator>
#include <list>
#include <string>
#include <string_view>

#include "agent/output.h"
#include "platform/printable.h"
#include "records/record_layout.h"

namespace kddc {
namespace {

// More than the labels, the identifiers and the numbers of any record.
constexpr std::size_t kWithoutNames = 4096;

std::string_view viewOf(const unsigned char* data, std::size_t count) {
  return {reinterpret_cast<const char*>(data), count};
}

// Replaces what a payload points at by harmless text, which it owns.
class Harmless {
 public:
  void fid(const char*, const fsf_fid&) {}
  void byte(const char*, unsigned int) {}
  void u32(const char*, unsigned int, As = As::kDecimal) {}
  void u64(const char*, unsigned long long, As = As::kDecimal) {}
  void time(const char*, const FlrJrnTime&) {}
  void text(const char*, const char*& value) { value = keep(printable(value)).c_str(); }
  void block(const char*, const unsigned char*& data, unsigned int count, As) {
    std::string& text = keep(std::string(viewOf(data, count)));
    for (char& c : text)
      if (c < ' ' || c > '~') c = '.';
    data = reinterpret_cast<const unsigned char*>(text.data());
  }
  void none(unsigned char) {}

 private:
  std::string& keep(std::string text) { return kept_.emplace_back(std::move(text)); }

  std::list<std::string> kept_;
};

// Writes the members of a JSON object.
class JsonWriter {
 public:
  explicit JsonWriter(fmt::memory_buffer& out) : out_(out) {}

  void fid(const char* name, const fsf_fid& fid) { text(name, fid2str(fid).c_str()); }
  void byte(const char* name, unsigned int value) { u64(name, value); }
  void u32(const char* name, unsigned int value, As = As::kDecimal) { u64(name, value); }
  void u64(const char* name, unsigned long long value, As = As::kDecimal) {
    member(fmt::format("\"{}\":{}", name, value));
  }
  void time(const char* name, const FlrJrnTime& time) {
    member(fmt::format("\"{}\":[{},{}]", name, time.tv_sec, time.tv_nsec));
  }
  void text(const char* name, const char* value) { member(jsonMember(name, value)); }
  void block(const char* name, const unsigned char* data, unsigned int count, As) {
    member(base64Member(name, viewOf(data, count)));
  }
  void none(unsigned char) {}

 private:
  void member(std::string_view text) {
    out_.push_back(separator_);
    separator_ = ',';
    out_.append(text);
  }

  fmt::memory_buffer& out_;
  char separator_ = '{';
};

}  // namespace

void appendText(const FlrJrnCommandRaw& record, fmt::memory_buffer& out) {
  const std::size_t before = out.size();
  out.resize(before + kWithoutNames + getRawCmdSize(&record));
  char* text = out.data() + before;
  printRawCmd(text, static_cast<unsigned int>(out.size() - before), &record);
  out.resize(before + std::strlen(text));
  out.push_back('\n');
}

void appendHarmlessText(const FlrJrnCommandRaw& record, fmt::memory_buffer& out) {
  FlrJrnCommandRaw copy = record;
  Harmless harmless;
  visitPayload(harmless, copy);
  appendText(copy, out);
}

void appendJson(const FlrJrnCommandRaw& record, fmt::memory_buffer& out) {
  JsonWriter json(out);
  json.text("cmd", commandName(record.cmd));
  json.u32("timestamp", record.timestamp);
  json.u64("seq_num", record.seq_num);
  json.u64("devt", record.devt);
  json.u32("mask", record.mask);
  visitPayload(json, record);
  out.append(std::string_view("}\n"));
}

}  // namespace kddc
