// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// An endless row of records of random length and bytes, in which each can be made, and told to be
// the one it claims to be, from its number alone.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <span>
#include <vector>

namespace kddc::test {

// One object for each thread: making a record and looking at one do not go together.
class NumberedRecords {
 public:
  using Number = std::uint64_t;

  // Lengths are spread evenly from 8 to `longest`, at most 32767.
  explicit NumberedRecords(unsigned int longest) : longest_(longest), bytes_(longest) {
    std::mt19937 random(2049);
    noise_.resize(kOffsets + longest);
    for (unsigned char& byte : noise_) byte = static_cast<unsigned char>(random());
  }

  // Valid until the next call.
  std::span<unsigned char> make(Number number) {
    const std::size_t length = lengthOf(number);
    std::memcpy(bytes_.data(), &number, sizeof number);
    std::memcpy(bytes_.data() + sizeof number, noiseOf(number), length - sizeof number);
    return {bytes_.data(), length};
  }

  // The number of a record if each of its bytes is right.
  std::optional<Number> numberOf(const unsigned char* data, int length) const {
    Number number = 0;
    if (length < static_cast<int>(sizeof number)) return std::nullopt;
    std::memcpy(&number, data, sizeof number);
    const auto size = static_cast<std::size_t>(length);
    if (size != lengthOf(number)) return std::nullopt;
    if (std::memcmp(data + sizeof number, noiseOf(number), size - sizeof number) != 0)
      return std::nullopt;
    return number;
  }

 private:
  static constexpr std::size_t kOffsets = 65536;

  static Number mixed(Number number) {
    number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9u;
    number = (number ^ (number >> 27)) * 0x94d049bb133111ebu;
    return number ^ (number >> 31);
  }
  std::size_t lengthOf(Number number) const {
    return sizeof number + mixed(number) % (longest_ - sizeof number + 1);
  }
  const unsigned char* noiseOf(Number number) const { return &noise_[mixed(~number) % kOffsets]; }

  std::size_t longest_;
  std::vector<unsigned char> bytes_, noise_;
};

}  // namespace kddc::test
