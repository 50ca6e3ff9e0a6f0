// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a record of each command costs to encode, to decode and to check, in nanoseconds.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "bench/ratios.h"
#include "records/record_layout.h"
#include "tests/support/bytes.h"
#include "tests/support/record_samples.h"

using kddc::test::Bytes;
using kddc::test::bytes;
using kddc::test::Sample;

namespace {

void encode(benchmark::State& state, const FlrJrnCommandRaw& record) {
  Bytes buffer(getRawCmdSize(&record));
  for (auto _ : state) {
    benchmark::DoNotOptimize(encodeRawCmd(&record, buffer.data()));
    benchmark::ClobberMemory();
  }
}

void decode(benchmark::State& state, const Bytes& wire) {
  FlrJrnCommandRaw record;
  for (auto _ : state) {
    benchmark::DoNotOptimize(decodeRawCmd(wire.data(), &record));
    benchmark::DoNotOptimize(record);
    benchmark::ClobberMemory();
  }
}

void check(benchmark::State& state, const Bytes& wire) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(kddc::isWellFormedRecord(wire.data(), wire.size()));
    benchmark::ClobberMemory();
  }
}

// The floor: what moving the record's bytes costs.
void copy(benchmark::State& state, const Bytes& wire) {
  Bytes buffer(wire.size());
  for (auto _ : state) {
    std::memcpy(buffer.data(), wire.data(), wire.size());
    benchmark::ClobberMemory();
  }
}

// Of these the table tells; the others cost about the same, for nothing is copied but header,
// identifiers and numbers.
constexpr std::string_view kShown[] = {"FLR_JRN_NOOP", "FLR_JRN_CREATE", "FLR_JRN_RENAME"};

}  // namespace

int main(int argc, char** argv) {
  std::vector<kddc::bench::Measured> figures;
  for (const Sample& sample : kddc::test::oneOfEachCommand()) {
    const std::string name = kddc::commandName(sample.record.cmd);
    const Bytes wire = bytes(sample.wire);
    benchmark::RegisterBenchmark(("copy/" + name).c_str(), copy, wire);
    benchmark::RegisterBenchmark(("encode/" + name).c_str(), encode, sample.record);
    benchmark::RegisterBenchmark(("decode/" + name).c_str(), decode, wire);
    benchmark::RegisterBenchmark(("check/" + name).c_str(), check, wire);
    if (std::ranges::find(kShown, name) == std::end(kShown)) continue;
    const std::string what = "`" + name + "`, " + std::to_string(wire.size()) + " bytes";
    for (const char* column : {"copy", "encode", "decode", "check"})
      figures.push_back({.ours = column + ("/" + name),
                         .floor = "",
                         .figure = {.table = "records",
                                    .what = what,
                                    .column = column,
                                    .aim = column == std::string_view("decode") ? 20e-9 : 0}});
  }
  return kddc::bench::runAndReport(argc, argv, 5, figures);
}
