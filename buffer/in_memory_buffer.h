// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One block of memory with a run of records: one thread appends, another takes them out, possibly
// at the same time; the block goes to a file and comes back from one as a whole.
//
//   0      2   length n of the record, signed, host byte order; 0 means no more records
//   2      n   the record, any bytes
//   2+n   ...  the next record, without padding
//
//   0 ───────── ReadPointer_m ───────── WritePointer_m ───────── BufferSize_m
//     taken             waiting to be read           zeros: room for more
//
// Records are handed out where they lie, without a copy: the bytes are valid until the block is
// emptied, loaded or flushed. A length that is negative or runs past what was written, as a file
// that was cut or damaged brings it, ends the block: what was before it has been delivered, what is
// behind it is skipped, logged as an error and counted (DamagedLengths).
//
// Threads: the mode says. In shared mode (2) one writer and one reader; what both touch is guarded
// by Monitor_m, and payload bytes are copied outside it and published by the move of WritePointer_m
// under it. The reader moves ReadPointer_m without it as far as it has already seen WritePointer_m.
// In the modes 0 and 1 nothing is locked and the owner sees to it that one thread at a time uses
// the block. Whoever also needs the monitor of the owner takes that one first.
//
// Failures: UDCException type 0 of Load, Flush and FlushRemainingData, with errno; logged under the
// tag "InMemoryBuffer :: <method>" and passed on. A record without room is no failure but a false.
#pragma once

#include <atomic>
#include <memory>

#include "platform/export.h"
#include "platform/kd_monitor.h"

class KDDC_API InMemoryBuffer {
 public:
  // A block of `size` bytes, empty, in mode 2, blocking. Reads the key "TolerateWriteErrors" of
  // section "DataClassification": how many partial writes a flush tolerates, if more than 10.
  explicit InMemoryBuffer(int size);
  ~InMemoryBuffer() = default;
  InMemoryBuffer(const InMemoryBuffer&) = delete;
  InMemoryBuffer& operator=(const InMemoryBuffer&) = delete;

  // Appends one record of 0 to 32767 bytes. False when it has no room, and in shared mode the block
  // is then marked full, so that a waiting reader learns that no more will come; false when `len`
  // is negative, and nothing happens. A record of 0 bytes reads as the end of the block.
  bool Write(unsigned char* data, short len);

  // Takes the next record: `*data` points into the block. False otherwise, and `*eof` says why:
  //   true       nothing is left, and in shared mode the writer has marked the block full
  //   false      the data ended with a length of 0, or with one that does not fit
  //   untouched  mode 1; or shared mode, and the block is non-blocking or was aborted
  // In shared mode a blocking reader waits for data; it looks again at least once a minute.
  bool Read(bool* eof, unsigned char** data, int* len);
  // The same for the next `n` bytes, whatever they are.
  bool ReadData(bool* eof, unsigned char** data, int n);

  // Replaces the contents by what one read(2) of at most `len` bytes (and never more than the block
  // holds) brings, and returns their number. After a failure the contents are zeros.
  int Load(int fd, int len);
  // Writes the contents from the first byte on, what has been read included, and then empties the
  // block. Returns the result of the last write(2), not the total. After a failure the block is as
  // it was.
  int Flush(int fd);
  // Writes what has not been read and changes nothing. Takes no lock: the other side has stopped.
  // A write(2) that fails is logged and tried again for as long as it fails.
  void FlushRemainingData(int fd);
  // Empties the block and wakes the reader.
  void ReInitialize();

  // 0: one thread, reads never wait. 1: writes only, every read fails. 2: shared. Takes no lock.
  void SetMode(int mode) { Mode_m = mode; }
  // Reads wait again. Takes no lock and wakes nobody.
  void SetBlocking() { Blocking_m = true; }
  // Reads that wait, now and later, answer false at once.
  void SetNonBlocking();
  // A read that waits answers false; every later one that has to wait does so after its first wait.
  // Cannot be taken back.
  void Abort();

  // How many bytes wait to be read. For the owner, when the other side has stopped.
  int Unread() const;
  // How many times a length that does not fit has ended the contents. From any thread.
  unsigned long long DamagedLengths() const { return damagedLengths_; }

  // The owner's number for the block; the block itself only shows it in messages.
  unsigned long long BufferId_m = 0;

 protected:
  class Access;

  std::unique_ptr<unsigned char[]> Buffer_m;
  int BufferSize_m;
  KdMonitor Monitor_m;
  int WritePointer_m GUARDED_BY(Monitor_m) = 0;
  int ReadPointer_m GUARDED_BY(Monitor_m) = 0;
  std::atomic<int> Mode_m = 2;
  std::atomic<bool> Blocking_m = true;
  bool Full_m GUARDED_BY(Monitor_m) = false;
  unsigned int MaxTrials_m = 10;

  std::atomic<bool> Abort_m = false;

 private:
  int writersPosition() const;
  void markFull();
  bool waitForData(int n) REQUIRES(Monitor_m);
  bool take(bool* eof, unsigned char** data, int n) REQUIRES(Monitor_m);
  bool takeSeen(bool* eof, unsigned char** data, int n);
  bool takePayload(bool* eof, unsigned char** data, int n);
  void skipHalfALength();
  void skipTheRest(int length) REQUIRES(Monitor_m);
  void clear() REQUIRES(Monitor_m);

  // The reader's own: WritePointer_m when it last held the monitor.
  int seen_ = 0;
  std::atomic<unsigned long long> damagedLengths_ = 0;
};
