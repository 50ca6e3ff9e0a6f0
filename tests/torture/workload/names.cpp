// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Operations that give names, take them away and move them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "tests/torture/workload/operations.h"

namespace kddc::torture {
namespace {

constexpr int kDeep = 200;

void move(const Place& from, const Place& to, unsigned flags = 0) {
  renameat2(from.folder.get(), from.name.c_str(), to.folder.get(), to.name.c_str(), flags);
}

void makeFolder(Worker& w) {
  const Place at = w.place();
  mkdirat(at.folder.get(), at.name.c_str(), 0755);
}

// Deep enough that the names from the top do not fit a path.
void makeDeepTree(Worker& w) {
  UniqueFd at = w.folder();
  for (int depth = 0; depth < kDeep && at; ++depth) {
    const std::string name = w.random.oneIn(4) ? w.name() : "deep";
    mkdirat(at.get(), name.c_str(), 0755);
    at = openFolder(at.get(), name);
  }
  const UniqueFd file(openat(at.get(), "bottom", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
}

void link(Worker& w) {
  const Place from = w.existing(Kind::kOther), to = w.place();
  if (linkat(from.folder.get(), from.name.c_str(), to.folder.get(), to.name.c_str(), 0) != 0)
    return;
}

void unlink(Worker& w) {
  const Place at = w.existing(Kind::kOther);
  unlinkat(at.folder.get(), at.name.c_str(), 0);
}

// What is written after the last name is gone concerns nobody.
void unlinkOpen(Worker& w) {
  const Place at = w.existing(Kind::kOther);
  UniqueFd fd(
      openat(at.folder.get(), at.name.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  unlinkat(at.folder.get(), at.name.c_str(), 0);
  if (ftruncate(fd.get(), 100) == 0) w.release(std::move(fd));
}

void removeFolder(Worker& w) {
  const Place at = w.existing(Kind::kFolder);
  unlinkat(at.folder.get(), at.name.c_str(), AT_REMOVEDIR);
}

void removeAll(int folder, const std::string& name) {
  const UniqueFd below = openFolder(folder, name);
  for (const Entry& entry : entriesOf(below.get())) {
    if (entry.isFolder)
      removeAll(below.get(), entry.name);
    else
      unlinkat(below.get(), entry.name.c_str(), 0);
  }
  unlinkat(folder, name.c_str(), AT_REMOVEDIR);
}

void removeTree(Worker& w) {
  const Place at = w.existing(Kind::kFolder);
  if (!isKept(at.name)) removeAll(at.folder.get(), at.name);
}

void rename(Worker& w) {
  move(w.existing(), w.place());
}

void renameHere(Worker& w) {
  const Place from = w.existing();
  const std::string to = w.name();
  renameat(from.folder.get(), from.name.c_str(), from.folder.get(), to.c_str());
}

void renameOver(Worker& w) {
  move(w.existing(Kind::kOther), w.existing(Kind::kOther));
}

void renameOverOpen(Worker& w) {
  const Place from = w.existing(Kind::kOther), to = w.existing(Kind::kOther);
  UniqueFd fd(
      openat(to.folder.get(), to.name.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  move(from, to);
  w.release(std::move(fd));
}

void renameOverEmptyFolder(Worker& w) {
  const Place from = w.existing(Kind::kFolder), to = w.place();
  mkdirat(to.folder.get(), to.name.c_str(), 0700);
  move(from, to);
}

void renameToItself(Worker& w) {
  const Place at = w.existing();
  move(at, at);
}

// Does nothing: both names stay.
void renameOverOwnLink(Worker& w) {
  const Place from = w.existing(Kind::kOther), to = w.place();
  if (linkat(from.folder.get(), from.name.c_str(), to.folder.get(), to.name.c_str(), 0) == 0)
    move(from, to);
}

void exchange(Worker& w) {
  move(w.existing(), w.existing(), RENAME_EXCHANGE);
}

void renameUnlessThere(Worker& w) {
  move(w.existing(), w.place(), RENAME_NOREPLACE);
}

void renameLeavingWhiteout(Worker& w) {
  if (!w.options().noDevices) move(w.existing(Kind::kOther), w.place(), RENAME_WHITEOUT);
}

void moveFolder(Worker& w) {
  move(w.existing(Kind::kFolder), w.place());
}

void moveFolderToTheTop(Worker& w) {
  move(w.existing(Kind::kFolder), {w.root(), w.name()});
}

}  // namespace

std::span<const Operation> nameOperations() {
  static constexpr Operation kOperations[] = {
      {40, makeFolder},
      {1, makeDeepTree},
      {25, link},
      {55, unlink},
      {10, unlinkOpen},
      {20, removeFolder},
      {3, removeTree},
      {30, rename},
      {20, renameHere},
      {15, renameOver},
      {8, renameOverOpen},
      {10, renameOverEmptyFolder},
      {4, renameToItself},
      {6, renameOverOwnLink},
      {15, exchange},
      {8, renameUnlessThere},
      {5, renameLeavingWhiteout},
      {15, moveFolder},
      {10, moveFolderToTheTop},
  };
  return kOperations;
}

void makeManyLinks(Worker& worker) {
  constexpr int kLinks = 16500, kTakenAway = 300;
  const UniqueFd root = worker.root();
  mkdirat(root.get(), kManyLinks, 0755);
  const UniqueFd folder = openFolder(root.get(), kManyLinks);
  const UniqueFd file(openat(folder.get(), "0", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  const auto nameOf = [](int i) { return std::to_string(i); };
  for (int i = 1; i < kLinks; ++i) linkat(folder.get(), "0", folder.get(), nameOf(i).c_str(), 0);
  // Over the edge and back.
  for (int i = kLinks - kTakenAway; i < kLinks; ++i) unlinkat(folder.get(), nameOf(i).c_str(), 0);
}

}  // namespace kddc::torture
