// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The same few names, again and again: the kernel merges the events of one burst, and what is left
// of them does not tell the order. All processes use the same names at the top of the tree.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "tests/torture/workload/operations.h"

namespace kddc::torture {
namespace {

// Two names at the top, alone or one of many.
struct Pair {
  explicit Pair(Worker& w)
      : root(w.root()),
        a("burst" + std::to_string(w.random.below(3))),
        b("burst" + std::to_string(w.random.below(3))),
        rounds(static_cast<int>(1 + w.random.below(6))) {}

  void create(const std::string& name) const {
    const UniqueFd fd(
        openat(root.get(), name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0644));
  }
  void remove(const std::string& name) const { unlinkat(root.get(), name.c_str(), 0); }
  void rename(const std::string& from, const std::string& to, unsigned flags = 0) const {
    renameat2(root.get(), from.c_str(), root.get(), to.c_str(), flags);
  }
  void link(const std::string& from, const std::string& to) const {
    if (linkat(root.get(), from.c_str(), root.get(), to.c_str(), 0) != 0) return;
  }

  UniqueFd root;
  std::string a, b;
  int rounds;
};

void createAndRemove(Worker& w) {
  const Pair pair(w);
  for (int i = 0; i < pair.rounds; ++i) {
    pair.create(pair.a);
    pair.remove(pair.a);
  }
  if (w.random.oneIn(2)) pair.create(pair.a);
}

void renameToAndFro(Worker& w) {
  const Pair pair(w);
  pair.create(pair.a);
  for (int i = 0; i < pair.rounds; ++i) {
    pair.rename(pair.a, pair.b);
    pair.rename(pair.b, pair.a);
  }
  if (w.random.oneIn(2)) pair.rename(pair.a, pair.b);
}

void linkAndUnlink(Worker& w) {
  const Pair pair(w);
  pair.create(pair.a);
  for (int i = 0; i < pair.rounds; ++i) {
    pair.link(pair.a, pair.b);
    pair.remove(pair.b);
  }
  if (w.random.oneIn(2)) pair.link(pair.a, pair.b);
}

// One process links what another one unlinks: no mask shows that their events were merged.
void linkOnly(Worker& w) {
  const Pair pair(w);
  pair.link(pair.a, pair.b);
}

void removeOnly(Worker& w) {
  const Pair pair(w);
  pair.remove(pair.a);
}

void exchangeThrice(Worker& w) {
  const Pair pair(w);
  for (int i = 0; i < 3; ++i) pair.rename(pair.a, pair.b, RENAME_EXCHANGE);
}

void moveAwayAndLinkBack(Worker& w) {
  const Pair pair(w);
  pair.remove(pair.a);
  pair.rename(pair.b, "burst-c");
  pair.link("burst-c", pair.a);
}

void makeAndRemoveFolder(Worker& w) {
  const Pair pair(w);
  for (int i = 0; i < pair.rounds; ++i) {
    mkdirat(pair.root.get(), "burst-folder", 0755);
    const UniqueFd folder = openFolder(pair.root.get(), "burst-folder");
    mkdirat(folder.get(), pair.a.c_str(), 0755);
    unlinkat(folder.get(), pair.a.c_str(), AT_REMOVEDIR);
    unlinkat(pair.root.get(), "burst-folder", AT_REMOVEDIR);
  }
}

void changeModeOften(Worker& w) {
  const Pair pair(w);
  for (int i = 0; i < pair.rounds; ++i)
    fchmodat(pair.root.get(), pair.a.c_str(), 0600 + static_cast<mode_t>(i), 0);
  if (w.random.oneIn(3)) pair.remove(pair.a);
}

}  // namespace

std::span<const Operation> burstOperations() {
  static constexpr Operation kOperations[] = {
      {12, createAndRemove},    {12, renameToAndFro},     {12, linkAndUnlink},
      {10, linkOnly},           {10, removeOnly},         {8, exchangeThrice},
      {8, moveAwayAndLinkBack}, {8, makeAndRemoveFolder}, {5, changeModeOften},
  };
  return kOperations;
}

}  // namespace kddc::torture
