// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/walk_thread.h"

#include <utility>

namespace kddc {
namespace {

// So few that they are in the processor's cache still when they are inserted, and so many that to
// hand them over costs nothing beside.
constexpr std::size_t kBatchEntries = 250;

// Leaves the walk when nobody wants its entries any more.
struct NotWanted {};

}  // namespace

WalkThread::WalkThread(UniqueFd root, std::string rootName, WalkOptions options, Wishes wishes)
    : root_(std::move(root)),
      rootName_(std::move(rootName)),
      options_(std::move(options)),
      wishes_(std::move(wishes)),
      thread_([this] { run(); }) {}

WalkThread::~WalkThread() {
  queue_.stop();
  if (thread_.joinable()) thread_.join();
}

WalkCounts WalkThread::finish() {
  thread_.join();
  if (failure_) std::rethrow_exception(failure_);
  return counts_;
}

void WalkThread::run() {
  try {
    walk();
    queue_.finish();
  } catch (const NotWanted&) {
  } catch (...) {
    failure_ = std::current_exception();
    queue_.stop();
  }
}

void WalkThread::walk() {
  renew();
  if (wishes_.endsOfFolders)
    options_.folderRead = [this](std::uint64_t folder) { put({}, {}, folder, false); };
  counts_ = walkTree(std::move(root_), rootName_, options_,
                     [this](const WalkedEntry& entry) { add(entry); });
  flush();
}

void WalkThread::add(const WalkedEntry& entry) {
  if (wishes_.check) wishes_.check();
  batch_.names += entry.name;
  put(entry.st, entry.fid, entry.parent, entry.isStub);
}

void WalkThread::put(const struct stat& st, const fsf_fid& fid, std::uint64_t parent, bool isStub) {
  batch_.entries.push_back(
      {st, fid, parent, isStub, static_cast<std::uint32_t>(batch_.names.size())});
  if (batch_.entries.size() == kBatchEntries) flush();
}

void WalkThread::flush() {
  if (!queue_.push(std::exchange(batch_, {}))) throw NotWanted();
  renew();
}

void WalkThread::renew() {
  batch_.entries.reserve(kBatchEntries);
  batch_.names.reserve(kBatchEntries * 16);
}

}  // namespace kddc
