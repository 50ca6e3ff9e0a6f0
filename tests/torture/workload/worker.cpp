// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "tests/torture/workload/worker.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace kddc::torture {
namespace {

constexpr int kDeepest = 300;
constexpr int kTries = 4;  // folders looked into for an entry of the wanted kind
constexpr std::size_t kMostHeld = 24;
constexpr std::size_t kLongestName = 255;

const std::string kOddNames[] = {
    "line\nbreak",
    "-rf",
    "--help",
    "it's",
    "\"quoted\"",
    "'; DROP TABLE FILES;--",
    " ",
    "trailing ",
    "tab\there",
    "back\\slash",
    "%s%n",
    "*",
    "$(id)",
    "\x01\x7f",
    "...",
    ".hidden",
    "#123",
    "\r",
    "NULL",
    "\xc3\xa9",          // one letter,
    "e\xcc\x81",         // the same to the eye
    "\xf0\x9f\x98\x80",  // beyond the first 65,536
    "\xff\xfe",          // not UTF-8
    "\xed\xa0\x80",      // half of a pair
    "\xc3",              // cut off
    std::string(kLongestName, 'x'),
    std::string(kLongestName - 1, 'x') + "\xff",
    std::string(kLongestName, '\x80'),
};

std::string anyBytes(Random& random) {
  std::string name(1 + random.below(kLongestName), '?');
  for (char& byte : name) {
    const auto value = static_cast<char>(1 + random.below(255));
    byte = value == '/' || value == '.' ? '_' : value;
  }
  return isKept(name) ? "_" : name;
}

std::string numbered(const char* stem, std::uint64_t number) {
  return stem + std::to_string(number);
}

bool isDots(std::string_view name) {
  return name == "." || name == "..";
}

// Leaves those that fit; the order stays.
void keepOnly(std::vector<Entry>& entries, Kind kind, Kept kept) {
  std::erase_if(entries, [&](const Entry& entry) {
    if (kept == Kept::kNever && isKept(entry.name)) return true;
    return kind != Kind::kAny && entry.isFolder != (kind == Kind::kFolder);
  });
}

}  // namespace

UniqueFd openFolder(int folder, const std::string& name) {
  return UniqueFd(openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

std::string pathOf(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

std::vector<Entry> entriesOf(int folder) {
  std::vector<Entry> entries;
  UniqueFd own = openFolder(folder, ".");
  const std::unique_ptr<DIR, int (*)(DIR*)> list(own ? fdopendir(own.get()) : nullptr, closedir);
  if (!list) return entries;
  own.release();
  while (const dirent* entry = readdir(list.get()))
    if (!isDots(entry->d_name)) entries.push_back({entry->d_name, entry->d_type == DT_DIR});
  std::ranges::sort(entries, {}, &Entry::name);
  return entries;
}

Worker::Worker(const Options& options, int index)
    : random(options.seed, static_cast<std::uint64_t>(index)),
      options_(options),
      root_(openFolder(AT_FDCWD, options.root)),
      outside_(options.outside.empty() ? UniqueFd() : openFolder(AT_FDCWD, options.outside)) {}

// The folder outside is worked in like the volume, so that every operation crosses the border.
UniqueFd Worker::start() {
  return openFolder(outside_ && random.oneIn(5) ? outside_.get() : root_.get(), ".");
}

UniqueFd Worker::folder() {
  UniqueFd at = start();
  const bool toTheBottom = random.oneIn(100);
  for (int depth = 0; depth < kDeepest && (toTheBottom || !random.oneIn(3)); ++depth) {
    auto folders = entriesOf(at.get());
    keepOnly(folders, Kind::kFolder, Kept::kToo);
    std::erase_if(folders, [](const Entry& entry) { return entry.name == kManyLinks; });
    if (folders.empty()) break;
    UniqueFd next = openFolder(at.get(), random.pick(folders).name);
    if (!next) break;
    at = std::move(next);
  }
  return at;
}

std::string Worker::name() {
  switch (random.below(12)) {
    case 0:
      return anyBytes(random);
    case 1:
    case 2:
      return random.pick(kOddNames);
    default:
      return numbered("n", random.below(24));
  }
}

Place Worker::existing(Kind kind, Kept kept) {
  UniqueFd in = folder();
  for (int tries = 0; tries < kTries && !random.oneIn(20); ++tries) {
    auto entries = entriesOf(in.get());
    keepOnly(entries, kind, kept);
    if (!entries.empty()) return {std::move(in), random.pick(entries).name};
    in = folder();
  }
  return {std::move(in), name()};
}

UniqueFd Worker::keptFolder() {
  UniqueFd at = openFolder(root_.get(), kKept);
  while (!random.oneIn(3)) {
    auto folders = entriesOf(at.get());
    std::erase_if(folders, [](const Entry& e) { return !e.isFolder || !isKept(e.name); });
    if (folders.empty()) break;
    UniqueFd next = openFolder(at.get(), random.pick(folders).name);
    if (!next) break;
    at = std::move(next);
  }
  return at;
}

Place Worker::keptEntry(std::string_view prefix) {
  UniqueFd in = keptFolder();
  auto entries = entriesOf(in.get());
  std::erase_if(entries, [&](const Entry& entry) { return !entry.name.starts_with(prefix); });
  return {std::move(in), entries.empty() ? std::string() : random.pick(entries).name};
}

void Worker::release(UniqueFd file) {
  if (!file || !options_.holdOpen || !random.oneIn(3)) return;
  held_.push_back(std::move(file));
  if (held_.size() > kMostHeld) closeOne();
}

int Worker::held() {
  return held_.empty() ? -1 : random.pick(held_).get();
}

void Worker::closeOne() {
  if (held_.empty()) return;
  std::swap(random.pick(held_), held_.back());
  held_.pop_back();
}

}  // namespace kddc::torture
