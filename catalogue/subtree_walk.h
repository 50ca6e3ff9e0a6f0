// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a removal of folders under way must remember: a removal calls itself for every folder it
// meets, and neither a cycle among the parents of a damaged catalogue nor a tree of any depth may
// keep it from ending.
#pragma once

#include <unordered_set>
#include <utility>
#include <vector>

namespace kddc {

struct SubtreeWalk {
  // Each level holds a query and its stack; what lies deeper waits in `postponed`.
  static constexpr int kDeepest = 500;

  int depth = 0;
  std::unordered_set<unsigned long long> visited;                            // inodes of folders
  std::vector<std::pair<unsigned long long, unsigned long long>> postponed;  // inode, FIDS row id
};

}  // namespace kddc
