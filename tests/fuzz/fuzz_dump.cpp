// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The texts of a record, for any that passes the check. What room there is for printRawCmd decides
// how much of the text is there, and nothing else; the harmless text holds nothing that a terminal
// obeys; the JSON is one object, and a text in it is the record's, byte for byte.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <vector>

#include "agent/base64.h"
#include "agent/record_text.h"
#include "records/journal_record.h"
#include "tests/fuzz/fuzz.h"

using kddc::fuzz::require;

namespace {

std::string whole(const FlrJrnCommandRaw& record) {
  fmt::memory_buffer text;
  kddc::appendText(record, text);
  return {text.data(), text.size() - 1};  // without the newline behind it
}

void checkRoom(const FlrJrnCommandRaw& record, const std::string& text, unsigned int room) {
  std::vector<char> out(room, 'x');  // exactly as large: a write beyond it is seen
  require(printRawCmd(out.data(), room, &record) == &out.back());
  require(out.back() == '\0');
  require(out.data() == text.substr(0, room - 1));
}

void checkHarmless(const FlrJrnCommandRaw& record) {
  fmt::memory_buffer text;
  kddc::appendHarmlessText(record, text);
  require(std::all_of(text.begin(), text.end(),
                      [](char c) { return c == '\n' || (c >= ' ' || c < 0); }));
  require(std::find(text.begin(), text.end(), '\x7f') == text.end());
}

std::string textIn(const nlohmann::json& object, const std::string& name) {
  if (object.contains(name)) return object.at(name);
  return kddc::fromBase64(object.at(name + "_base64").get<std::string>()).value();
}

void checkJson(const FlrJrnCommandRaw& record) {
  fmt::memory_buffer text;
  kddc::appendJson(record, text);
  require(text.size() > 0 && std::find(text.begin(), text.end(), '\n') == text.end() - 1);
  const auto object = nlohmann::json::parse(text.begin(), text.end());
  require(object.at("seq_num") == record.seq_num && object.at("mask") == record.mask);
  if (record.cmd == FLR_JRN_TXTMSG) require(textIn(object, "msg") == record.u.txtmsg.msg);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!kddc::isWellFormedRecord(data, size)) return 0;
  FlrJrnCommandRaw record;
  require(decodeRawCmd(data, &record) == 0);
  const std::string text = whole(record);
  const auto length = static_cast<unsigned int>(text.size());
  for (const unsigned int room : {1U, 2U, 18U, 100U, length, length + 1, length + 2})
    checkRoom(record, text, room);
  checkRoom(record, text, 1 + static_cast<unsigned int>(record.seq_num % length));
  checkHarmless(record);
  checkJson(record);
  return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed) {
  size = LLVMFuzzerMutate(data, size, maxSize);
  if (seed % 8 != 0) kddc::fuzz::putRecordLengthRight(data, size);
  return size;
}
