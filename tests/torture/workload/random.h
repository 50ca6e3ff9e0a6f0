// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A stream of chance that a seed fixes, on every machine alike.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace kddc::torture {

class Random {
 public:
  // Streams of one seed have nothing to do with each other.
  Random(std::uint64_t seed, std::uint64_t stream) {
    std::seed_seq both{seed, seed >> 32, stream};
    engine_.seed(both);
  }

  // From 0 to `bound` - 1. Not std::uniform_int_distribution, which each library draws otherwise.
  std::uint64_t below(std::uint64_t bound) { return engine_() % bound; }
  bool oneIn(std::uint64_t chances) { return below(chances) == 0; }
  template <class Table>
  decltype(auto) pick(Table&& table) {
    return table[static_cast<std::size_t>(below(std::size(table)))];
  }

 private:
  std::mt19937_64 engine_;
};

}  // namespace kddc::torture
