// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The database thread: takes records out of the queue, checks and decodes them, settles and applies
// them to the catalogues of their volumes, and commits.
//
//   ReadEntry ─► well formed? ─► decodeRawCmd ─► number as expected? ─► Settle::take, for each
//   catalogue of the record's devt (volumes on one file system share it)
//
// A NOOP is where the driver had nothing more to say: there pending entries are written, the
// catalogues committed, and whoever waits for that number is woken. Under load SQLite commits in
// groups by itself.
//
// Several drivers may feed the queue, one for each file system: numbers are checked, and waited
// for, by devt. Records of a file system that nobody follows any more are passed over.
//
// Nothing that goes wrong is passed over: a record that is refused, a number that is missing or
// comes again, records that the queue lost, one that could not be applied. Each is counted, logged
// and reported as a doubt, upon which the volumes are compared with the disk.
//
// Volumes come and go while it works. Records of one that is not there at the moment are dropped;
// whoever brings it back compares it with the disk afterwards.
//
// Threads: `run` on the database thread; the other functions from any. A catalogue belongs to the
// database thread between attach and detach.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "agent/live/volume_rows.h"
#include "buffer/persistent_raw_buffer.h"

namespace kddc {

// Why a catalogue may not be as the disk is.
struct Doubt {
  enum class Remedy {
    kCompare,  // the catalogue is whole, but was not told everything
    kReopen,   // it could not be read or written: it must be examined first
  };
  std::string reason;
  Remedy remedy = Remedy::kCompare;
};

class Applier {
 public:
  // What makes a comparison with the disk necessary; none of the volumes in particular when null.
  // Called with no volume coming or going meanwhile: must not attach or detach any.
  using Sink = std::function<void(const VolumeRows*, const Doubt&)>;

  // The queue must outlive the object.
  Applier(PersistentDCRawBuffer& queue, Sink doubt);

  // The number of the first record that is expected of a file system, before its first record is
  // added to the queue. Of one that is known the number stays.
  void expect(unsigned long long devt, unsigned long long number);
  // From now on the volume is given its records; until detach it must stay where it is.
  void attach(VolumeRows& volume);
  // Nothing of the volume is touched any more when this returns.
  void detach(VolumeRows& volume);

  // Works until a NOOP after finishAtNextNoop, or until `abandon`. `pulse`: as the driver's.
  void run(const std::function<void(bool waits)>& pulse = [](bool) {});
  void finishAtNextNoop();
  // Stops after the record in hand; what is left stays in the queue.
  void giveUp();
  // The same, and waits for that.
  void abandon();

  // Waits until the record of that number, of a file system's driver, is applied and committed;
  // false when time is up or the thread has ended before.
  bool waitFor(unsigned long long devt, unsigned long long number,
               std::chrono::milliseconds patience);
  bool hasEnded() const;

  struct Counts {
    std::uint64_t records = 0;  // taken out of the queue
    std::uint64_t bytes = 0;
    std::uint64_t refused = 0;  // not well formed
    std::uint64_t gaps = 0;     // numbers that did not follow each other
    double rate = 0;            // records in the last whole second in which there were any
  };
  Counts counts() const;
  // The number of the next record of a file system; 0 when none is expected.
  unsigned long long expected(unsigned long long devt) const;

 private:
  struct Numbers {
    unsigned long long expected = 1;
    unsigned long long committed = 0;  // every record up to here is applied and committed
  };

  void readSome(const std::function<void(bool waits)>& pulse);
  void take(std::span<unsigned char> bytes);
  void checkNumber(unsigned long long devt, unsigned long long number);
  void applyToVolumes(const FlrJrnCommandRaw& record);
  void checkpoint(unsigned long long devt, unsigned long long number);
  void reportLosses();
  void measureRate();
  void count(std::size_t bytes, std::uint64_t Counts::*what = nullptr);
  bool isFinished() const;

  PersistentDCRawBuffer& queue_;
  Sink doubt_;
  unsigned long long damagedBlocks_ = 0;

  std::mutex applying_;  // held while a record is applied; before mutex_
  std::vector<VolumeRows*> volumes_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Counts counts_;
  std::map<unsigned long long, Numbers> numbers_;  // by devt
  std::chrono::steady_clock::time_point rateBegan_;
  std::uint64_t rateRecords_ = 0;
  bool finishing_ = false;
  bool finished_ = false;
  bool ended_ = false;
};

}  // namespace kddc
