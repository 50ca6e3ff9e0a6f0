// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/applier.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "agent/errors.h"
#include "platform/ev_debug.h"
#include "records/journal_record.h"

namespace kddc {
namespace {

constexpr char kTag[] = "Applier";
// How long a swap file that cannot be read is left alone; how soon a reader that was told to leave
// is told again.
constexpr std::chrono::milliseconds kPause(1000), kPatience(20);

}  // namespace

Applier::Applier(PersistentDCRawBuffer& queue, Sink doubt)
    : queue_(queue), doubt_(std::move(doubt)) {}

// All that was numbered before counts as committed: whoever waits asks for a later one. A number
// that is known stays: the queue may hold records of a driver that is gone.
void Applier::expect(unsigned long long devt, unsigned long long number) {
  const std::lock_guard lock(mutex_);
  numbers_.try_emplace(devt, Numbers{number, number - 1});
}

void Applier::attach(VolumeRows& volume) {
  const std::lock_guard lock(applying_);
  volumes_.push_back(&volume);
}

void Applier::detach(VolumeRows& volume) {
  const std::lock_guard lock(applying_);
  std::erase(volumes_, &volume);
}

void Applier::run(const std::function<void(bool waits)>& pulse) {
  while (!isFinished()) {
    pulse(true);
    readSome(pulse);
    reportLosses();
  }
  const std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

// Nothing is taken also between two blocks, and when the queue was told to let us go.
void Applier::readSome(const std::function<void(bool waits)>& pulse) {
  unsigned char* data = nullptr;
  int length = 0;
  try {
    if (!queue_.ReadEntry(&data, &length)) return;
    pulse(false);
    take({data, static_cast<std::size_t>(length)});
  } catch (const std::exception&) {  // logged; the queue tries the same file again
    doubt_(nullptr, {"a swap file cannot be read"});
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPause, [&] { return finished_; });
  }
}

bool Applier::isFinished() const {
  const std::lock_guard lock(mutex_);
  return finished_;
}

bool Applier::hasEnded() const {
  const std::lock_guard lock(mutex_);
  return ended_;
}

void Applier::finishAtNextNoop() {
  const std::lock_guard lock(mutex_);
  finishing_ = true;
}

void Applier::giveUp() {
  const std::lock_guard lock(mutex_);
  finished_ = true;
}

// A reader that begins to wait just now does not notice the first time.
void Applier::abandon() {
  giveUp();
  std::unique_lock lock(mutex_);
  do {
    lock.unlock();
    queue_.Abort();
    lock.lock();
  } while (!changed_.wait_for(lock, kPatience, [&] { return ended_; }));
}

// A record comes out of files that anybody may have damaged, so its form is checked before anything
// in it is believed; one that fails is left out, and what it would have said is in doubt.
void Applier::take(std::span<unsigned char> bytes) {
  if (!isWellFormedRecord(bytes.data(), bytes.size())) {
    count(bytes.size(), &Counts::refused);
    dbg.Error(kTag, "a record of %zu bytes is damaged and was left out", bytes.size());
    return doubt_(nullptr, {"a record was damaged"});
  }
  count(bytes.size());
  FlrJrnCommandRaw record;
  decodeRawCmd(bytes.data(), &record);
  const std::lock_guard lock(applying_);
  checkNumber(record.devt, record.seq_num);
  if (record.cmd == FLR_JRN_NOOP)
    checkpoint(record.devt, record.seq_num);
  else
    applyToVolumes(record);
}

// Numbers run on within a file system, over restarts too. A gap concerns every volume on it: what
// the missing records said, and of which, nobody knows.
void Applier::checkNumber(unsigned long long devt, unsigned long long number) {
  unsigned long long expected = number;
  {
    const std::lock_guard lock(mutex_);
    const auto of = numbers_.find(devt);
    if (of != numbers_.end()) expected = std::exchange(of->second.expected, number + 1);
    if (number == expected) return;
    // A damaged NOOP may have claimed to be one that is still to come.
    if (number > 0) of->second.committed = std::min(of->second.committed, number - 1);
    ++counts_.gaps;
  }
  dbg.Error(kTag, "record %llu of %llu came where %llu was expected", number, devt, expected);
  const std::string reason = number > expected
                                 ? fmt::format("{} records are missing", number - expected)
                                 : "records came twice or out of order";
  for (const VolumeRows* volume : volumes_)
    if (volume->devt() == devt) doubt_(volume, {reason});
}

void Applier::applyToVolumes(const FlrJrnCommandRaw& record) {
  for (VolumeRows* volume : volumes_)
    if (volume->devt() == record.devt && volume->take(record) == Settle::Result::kFailed)
      doubt_(volume, {"a record could not be applied", Doubt::Remedy::kReopen});
}

// A NOOP ends everything that its driver had to say until then, so this is where a flush is
// answered, and where a stop in good order ends. A volume that cannot be written does not hold up
// the others.
void Applier::checkpoint(unsigned long long devt, unsigned long long number) {
  for (VolumeRows* volume : volumes_) {
    if (volume->devt() != devt) continue;
    try {
      volume->checkpoint();
    } catch (...) {
      const std::string why = describeCurrentException();
      dbg.Error(kTag, "eRRoR -- %s", why.c_str());
      doubt_(volume, {"the catalogue could not be written: " + why, Doubt::Remedy::kReopen});
    }
  }
  const std::lock_guard lock(mutex_);
  if (const auto of = numbers_.find(devt); of != numbers_.end()) of->second.committed = number;
  finished_ = finished_ || finishing_;
  changed_.notify_all();
}

// The queue itself counts what it could not read back.
void Applier::reportLosses() {
  const unsigned long long damaged = queue_.DamagedBlocks();
  if (damaged == damagedBlocks_) return;
  damagedBlocks_ = damaged;
  doubt_(nullptr, {"a swap file was damaged"});
}

// Of the last whole second or more: over less time the rate would jump about.
void Applier::measureRate() {
  ++rateRecords_;
  const auto now = std::chrono::steady_clock::now();
  const std::chrono::duration<double> passed = now - rateBegan_;
  if (passed.count() < 1) return;
  counts_.rate = static_cast<double>(rateRecords_) / passed.count();
  rateBegan_ = now;
  rateRecords_ = 0;
}

void Applier::count(std::size_t bytes, std::uint64_t Counts::*what) {
  const std::lock_guard lock(mutex_);
  if (bytes > 0) {
    ++counts_.records;
    measureRate();
  }
  counts_.bytes += bytes;
  if (what) ++(counts_.*what);
}

Applier::Counts Applier::counts() const {
  const std::lock_guard lock(mutex_);
  return counts_;
}

unsigned long long Applier::expected(unsigned long long devt) const {
  const std::lock_guard lock(mutex_);
  const auto of = numbers_.find(devt);
  return of == numbers_.end() ? 0 : of->second.expected;
}

bool Applier::waitFor(unsigned long long devt, unsigned long long number,
                      std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  const Numbers& numbers = numbers_.at(devt);
  changed_.wait_for(lock, patience, [&] { return numbers.committed >= number || ended_; });
  return numbers.committed >= number;
}

}  // namespace kddc
