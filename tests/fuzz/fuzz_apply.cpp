// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Sequences of records, applied to two catalogues that coalesce them and to models of those: every
// eight bytes are the seed of a record that fits what the catalogue holds by now. Each record is
// answered as the model answers it, and in the end the rows are the model's.
//
// The first byte of an input says around which time all that happens.
#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>

#include "platform/platform_info.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/model_volume.h"

using kddc::test::Coalescing;
using kddc::test::ModelVolume;

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" std::time_t time(std::time_t* out) noexcept {
  if (out) *out = kddc::test::shown;
  return kddc::test::shown;
}

namespace {

// Before and after the times that 31 and 32 bits hold.
constexpr std::time_t kEras[] = {1000000000, 2147483640, 3000000000, 4294967290};

constexpr size_t kMost = 60;  // records: more take longer than they find out
constexpr char kSection[] = "DataClassification";

struct HeldBack {
  explicit HeldBack(const char* files) {
    KDPlatformInfo::setDefault(kSection, "SimultaneousFileAcess", files);
  }
};
struct Volume : HeldBack, ModelVolume<Coalescing> {
  using HeldBack::HeldBack;
};

struct Setting {
  Setting() {
    kddc::fuzz::sayNothing();
    ::setenv("TMPDIR", kddc::test::inMemory().c_str(), 1);
    for (const char* key : {"CommitEveryRows", "CommitEveryMilliseconds"})
      KDPlatformInfo::setDefault(kSection, key, "1000000000");
  }
};
struct Volumes : Setting {
  std::array<Volume, 2> all{Volume("0"), Volume("10")};
};

kddc::test::Numbers numbersIn(const uint8_t* data, size_t size) {
  kddc::test::Numbers numbers(std::min<size_t>(size / 8, kMost));
  if (!numbers.empty()) std::memcpy(numbers.data(), data, numbers.size() * 8);
  return numbers;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static Volumes volumes;
  const auto numbers = numbersIn(data + 1, size - 1);
  const std::string mistake = kddc::test::mistakeIn(numbers, kEras[*data % std::size(kEras)],
                                                    kddc::test::Compare::kAtTheEnd, volumes.all);
  if (!mistake.empty()) fwrite(mistake.data(), 1, mistake.size(), stderr);
  kddc::fuzz::require(mistake.empty());
  return 0;
}
