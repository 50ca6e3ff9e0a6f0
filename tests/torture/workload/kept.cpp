// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What lives throughout. A row that stands for it must be the same row at the end:
//   keepfile-I-V   renamed and moved, never linked
//   keepbase-I     never renamed; further links keeplink-I-V of it come and go
//   keepdir-I-V    folders, renamed and moved with all below them
// The number I tells the file; V changes with each rename. Nothing is renamed over anything.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "tests/torture/workload/operations.h"

namespace kddc::torture {
namespace {

constexpr int kFiles = 30, kBases = 10, kFolders = 6;

std::string withVersion(const std::string& name, std::uint64_t version) {
  return name.substr(0, name.find('-', name.find('-') + 1)) + "-" + std::to_string(version);
}

void renameKept(Worker& w, const char* prefix) {
  const Place from = w.keptEntry(prefix);
  if (from.name.empty()) return;
  const UniqueFd other = w.keptFolder();
  const int to = w.random.oneIn(2) ? from.folder.get() : other.get();
  renameat2(from.folder.get(), from.name.c_str(), to,
            withVersion(from.name, w.random.below(5)).c_str(), RENAME_NOREPLACE);
}

void renameFile(Worker& w) {
  renameKept(w, "keepfile");
}

void renameFolder(Worker& w) {
  renameKept(w, "keepdir");
}

void exchangeFiles(Worker& w) {
  const Place a = w.keptEntry("keepfile"), b = w.keptEntry("keepfile");
  renameat2(a.folder.get(), a.name.c_str(), b.folder.get(), b.name.c_str(), RENAME_EXCHANGE);
}

void linkBase(Worker& w) {
  const Place from = w.keptEntry("keepbase");
  if (from.name.empty()) return;
  const std::string to = "keeplink" + from.name.substr(8) + "-" + std::to_string(w.random.below(5));
  if (linkat(from.folder.get(), from.name.c_str(), w.keptFolder().get(), to.c_str(), 0) != 0)
    return;
}

void unlinkLink(Worker& w) {
  const Place at = w.keptEntry("keeplink");
  if (!at.name.empty()) unlinkat(at.folder.get(), at.name.c_str(), 0);
}

void write(Worker& w) {
  const Place at = w.keptEntry(w.random.oneIn(2) ? "keepfile" : "keepbase");
  const UniqueFd fd(openat(at.folder.get(), at.name.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  if (::write(fd.get(), "more", 4) < 0) return;
}

void makeFiles(const Worker& worker, const std::string& stem, const char* ending, int count) {
  const UniqueFd root = worker.root();
  const UniqueFd top = openFolder(root.get(), kKept);
  for (int i = 0; i < count; ++i) {
    const std::string name = stem + std::to_string(i) + ending;
    const UniqueFd fd(openat(top.get(), name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  }
}

}  // namespace

std::span<const Operation> keptOperations() {
  static constexpr Operation kOperations[] = {
      {12, renameFile}, {6, renameFolder}, {4, exchangeFiles},
      {8, linkBase},    {6, unlinkLink},   {10, write},
  };
  return kOperations;
}

void makeKept(Worker& worker) {
  const UniqueFd root = worker.root();
  if (mkdirat(root.get(), kKept, 0755) != 0) return;
  const UniqueFd top = openFolder(root.get(), kKept);
  for (int i = 0; i < kFolders; ++i)
    mkdirat(top.get(), ("keepdir-" + std::to_string(i) + "-0").c_str(), 0755);
  makeFiles(worker, "keepfile-", "-0", kFiles);
  makeFiles(worker, "keepbase-", "", kBases);
}

}  // namespace kddc::torture
