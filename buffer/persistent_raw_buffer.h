// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The journal queue that survives a restart of the service.
//
//   start   both indicator files there? ──yes──► queue the swap files again
//              └──no──► empty the folder, IsRescanNeeded() == true
//   run     DriverThreadStarted, DbThreadStarted    both indicators deleted: a crash is noticed
//           AddEntry, ReadEntry                     raw_buffer.h
//   stop    DriverThreadShutDown, DbThreadShutDown  each leaves its indicator; the second saves
//
// Buffer folder: "swap.<number>" as in raw_buffer.h; "DriverThreadShutdownIndicator" and
// "DbThreadShutdownIndicator", empty; sub-folders left by other buffers, which are only listed.
// Cache root (key "dCacheRootDir", or "Korvix/jobResults/kddccache" in the installation directory):
// "GracefullClosedDbs", one decimal identifier a line, in the order of closing.
//
// A save writes what is left of the read block to file 0, each queued block to the number it was
// queued with, and what is left of the write block to the number behind the last queued block (2 if
// there is none), whatever numbers are taken by files that still wait on the disk. So a save can
// overwrite such a file or sort a record before an older one; IsSaveExact says whether it did.
// It cannot when the consumer has called ReadEntry once before the producer fills a block, and when
// no swap file waits at the end. docs/buffer.md says more.
//
// Threads: the driver thread calls AddEntry, DriverThreadStarted and DriverThreadShutDown, the
// database thread ReadEntry, DbThreadStarted, DbThreadShutDown and DbShutDown; the questions may be
// asked from anywhere, and Abort too. A thread that calls its ShutDown has stopped using the queue;
// the two calls exclude each other.
//
// Failures: as in raw_buffer.h, under "PersistentDCRawBuffer :: <method>". A restore that fails is
// none: it turns into a rescan. Abort and the ShutDown calls log and swallow; a save that failed
// leaves no second indicator, so the next start is a rescan.
#pragma once

#include <atomic>
#include <list>
#include <string>

#include "buffer/raw_buffer.h"
#include "platform/export.h"

class KDDC_API PersistentDCRawBuffer : public DCRawBuffer {
 public:
  // With `cleanStart` whatever the previous run left is thrown away; without it the buffer folder
  // must be there. Files in it that are not ours make the restore fail; they and the folder stay.
  explicit PersistentDCRawBuffer(bool cleanStart);

  // Whether both indicator files are there.
  bool WasShutdownGraceful();
  // Whether records of the previous run may be lost. Appends to `strayDbs`, unless it is null, the
  // database names of the sub-folders found: what stands before the first "_".
  bool IsRescanNeeded(std::list<std::string>* strayDbs);
  // Appends the lines of "GracefullClosedDbs"; nothing when there is no such file. The last
  // character of each line is taken for its end, so an unfinished last line loses a digit.
  void GetListOfDBsGracefullyClosed(std::list<std::string>* dbs);
  // Deletes "GracefullClosedDbs"; a failure is logged.
  void FinishedHandlingCorruptDbs();
  // Adds a line to "GracefullClosedDbs"; does nothing when it cannot be opened.
  void DbShutDown(unsigned long long dbId);
  // Removes the sub-folders found at the start.
  void RemoveStrayFolders();

  // From here on a crash is noticed at the next start, through a power loss too.
  void DriverThreadStarted();
  void DbThreadStarted();
  // The thread has stopped using the queue; the second of the two saves what is left in it.
  void DriverThreadShutDown();
  void DbThreadShutDown();
  bool AreJournalsSavedToDisk() const { return JournalsSavedToDisk_m; }
  // False after a save that failed, that overwrote, reordered or repeated records, or that followed
  // an unsafe order of calls (see above): compare the catalogues with the disk.
  bool IsSaveExact() const { return saveExact_; }

  bool ReadEntry(unsigned char** data, int* len) override;
  // Lets a reader that waits give up. One that begins to wait just then notices within a minute.
  void Abort();

  // Steps of the above. InitializeFromDisk queues the swap files that are there;
  // FlushJournalsToDisk saves when both threads have shut down; GetFileNum reads the number behind
  // "swap.".
  void InitializeFromDisk();
  void FlushJournalsToDisk();
  unsigned long long GetFileNum(const char* name);

 protected:
  std::atomic<bool> RescanNeeded_m = false;
  std::atomic<bool> LoadFromDiskPending_m = false;
  std::list<std::string> StrayDbs_m;
  std::list<std::string> StrayFolders_m;
  std::atomic<int> DriverThreadState_m = 0;  // 0 not started, 1 started, 2 shut down
  std::atomic<int> DbThreadState_m = 0;
  std::string DbThreadShutdownIndicator_m;
  std::string DriverThreadShutdownIndicator_m;
  std::string GracefullClosedDbs_m;
  std::atomic<bool> JournalsSavedToDisk_m = false;

 private:
  void nameFiles();
  void adoptListOfClosedDbs();
  void restoreOrEmpty(bool cleanStart);
  void skipRestored(const std::string& name);
  void noteStray(const std::string& name);
  void loadFirst();
  void queueLeftBehind() REQUIRES(Monitor_m);
  void started(const char* tag, const char* indicator, const char* cannotDelete,
               std::atomic<int>& state);
  void shutDown(const char* tag, const char* indicator, std::atomic<int>& own,
                const std::atomic<int>& other);
  void save() REQUIRES(Monitor_m);
  bool saveReadBlock() REQUIRES(Monitor_m);
  bool saveQueueAndWriteBlock() REQUIRES(Monitor_m);
  template <class Write>
  void writeSaved(unsigned long long number, Write&& write) REQUIRES(Monitor_m);
  void syncSaved(const char* tag) REQUIRES(Monitor_m);
  bool waitsOnDisk(unsigned long long number) const REQUIRES(Monitor_m);

  std::string cacheRoot_;
  std::atomic<bool> saveExact_ = true;
  unsigned long long firstNumber_ GUARDED_BY(Monitor_m) = 1;  // behind the restored files
  bool filledTooEarly_ GUARDED_BY(Monitor_m) = false;         // a block, before the first ReadEntry
  // The number of the last queued block that a save has written; a save that failed goes on there.
  unsigned long long lastSaved_ GUARDED_BY(Monitor_m) = 1;
};
