// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Counts every allocation of the program, from its beginning on, and lets one fail. It replaces
// operator new, so only one file of a program may include it.
// NOLINTBEGIN(misc-definitions-in-headers)
#pragma once

#include <atomic>
#include <cstdlib>
#include <new>

namespace kddc::test {
inline std::atomic<int> allocations = 0;
inline std::atomic<long> leftUntilFailure = -1;  // negative: none fails
}  // namespace kddc::test

// Not inline: a compiler that sees only one of the pair takes it for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++kddc::test::allocations;
  if (kddc::test::leftUntilFailure >= 0 && kddc::test::leftUntilFailure-- == 0)
    throw std::bad_alloc();
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
// NOLINTEND(misc-definitions-in-headers)
