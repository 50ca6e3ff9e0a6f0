// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The rows that the catalogue's benchmarks insert: plain files, a hundred in a folder.
#pragma once

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "catalogue/db_access.h"

namespace kddc::bench {

// Identifiers as ext4 gives them, in an order that has nothing to do with their values.
inline const std::vector<fsf_fid>& identifiers(std::size_t count) {
  static std::vector<fsf_fid> all;
  if (all.size() == count) return all;
  all.assign(count, {});
  std::vector<unsigned> numbers(count);
  std::iota(numbers.begin(), numbers.end(), 12U);
  std::mt19937 random(1);
  std::shuffle(numbers.begin(), numbers.end(), random);
  for (std::size_t i = 0; i < count; ++i) {
    all[i].data[0] = 1;
    all[i].data[1] = 8;
    const unsigned handle[2] = {numbers[i], static_cast<unsigned>(random())};
    std::copy_n(reinterpret_cast<const unsigned char*>(handle), 8, all[i].data + 4);
  }
  return all;
}

inline unsigned long long parentOf(std::size_t i) {
  return i / 100 + 1;
}

inline long long bareParentOf(std::size_t i) {
  return static_cast<long long>(parentOf(i));
}

inline std::string nameOf(std::size_t i) {
  return "document-" + std::to_string(i) + ".txt";
}

inline StatFidName_s entryAt(std::size_t i, const fsf_fid& fid) {
  StatFidName_s entry{};
  entry.fid = fid;
  entry.name = nameOf(i);
  entry.st.st_mode = 0100644;
  entry.st.st_nlink = 1;
  entry.st.st_size = static_cast<off_t>(i % 100000);
  entry.st.st_blocks = 8;
  entry.st.st_atime = entry.st.st_mtime = entry.st.st_ctime = 4000000000;
  return entry;
}

}  // namespace kddc::bench
