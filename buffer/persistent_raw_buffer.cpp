// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// In the order of a run: start and restore, the list of closed databases, the first read, thread
// starts and stops, the save.
//
// What makes a crash visible: the indicators are deleted, and that is on the disk, before a record
// is taken from the restored files; the second one is made only when everything saved is on the
// disk. So two indicators always stand for a complete set of files.
#include "buffer/persistent_raw_buffer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string_view>

#include "buffer/open_folder.h"
#include "buffer/swap_files.h"
#include "platform/logged.h"
#include "platform/platform_info.h"

using kddc::absorbed;
using kddc::logged;
using kddc::OpenFolder;

namespace {

constexpr int kShutDown = 2;

std::string cacheRootFromSettings() {
  std::string folder;
  if (KDPlatformInfo::getString("DataClassification", "dCacheRootDir", &folder)) return folder;
  dbg.Error("PersistentDCRawBuffer :: PersistentDCRawBuffer",
            "failed to get buffer_dir from the registry");
  return KDPI_Base::getZentharDirectory() + "/Korvix/jobResults/kddccache";
}

}  // namespace

PersistentDCRawBuffer::PersistentDCRawBuffer(bool cleanStart)
    : DCRawBuffer(0, UDC_RAW_MODE1, cleanStart, true) {
  logged("PersistentDCRawBuffer :: PersistentDCRawBuffer",
         [&]() NO_THREAD_SAFETY_ANALYSIS {  // nobody else knows the object yet
           WriteFileCounter_m = 1;          // 0 is for what is left of the read block
           nameFiles();
           adoptListOfClosedDbs();
           restoreOrEmpty(cleanStart);
         });
}

void PersistentDCRawBuffer::nameFiles() {
  DbThreadShutdownIndicator_m = SwapDir_m + "/" + kddc::kDbIndicator;
  DriverThreadShutdownIndicator_m = SwapDir_m + "/" + kddc::kDriverIndicator;
  cacheRoot_ = cacheRootFromSettings();
  GracefullClosedDbs_m = cacheRoot_ + "/" + kddc::kClosedDbs;
}

// The list once lay in the buffer folder.
void PersistentDCRawBuffer::adoptListOfClosedDbs() {
  const OpenFolder cache(cacheRoot_), buffer(SwapDir_m);
  if (!cache || !buffer || cache.kindOf(kddc::kClosedDbs) != OpenFolder::Kind::kNone) return;
  if (buffer.kindOf(kddc::kClosedDbs) == OpenFolder::Kind::kFile &&
      !buffer.moveFile(kddc::kClosedDbs, cache))
    dbg.Error("PersistentDCRawBuffer :: PersistentDCRawBuffer", "rename failed on [%s] errno[%u]",
              GracefullClosedDbs_m.c_str(), static_cast<unsigned>(errno));
}

void PersistentDCRawBuffer::restoreOrEmpty(bool cleanStart) NO_THREAD_SAFETY_ANALYSIS {
  RescanNeeded_m = cleanStart || !WasShutdownGraceful();
  if (!RescanNeeded_m) {
    try {
      InitializeFromDisk();
    } catch (...) {  // logged; whatever it was, the records are not all there
      RescanNeeded_m = true;
      SwapQueue_m.clear();
      WriteFileCounter_m = 1;
    }
  }
  if (RescanNeeded_m)
    recreateFolder("PersistentDCRawBuffer :: PersistentDCRawBuffer", true);
  else
    LoadFromDiskPending_m = true;
}

// Each thread leaves its indicator when it stops, and takes it away when it starts. With one of
// them alone nobody knows what the other had in hand.
bool PersistentDCRawBuffer::WasShutdownGraceful() {
  const OpenFolder folder(SwapDir_m);
  return folder && folder.kindOf(kddc::kDriverIndicator) == OpenFolder::Kind::kFile &&
         folder.kindOf(kddc::kDbIndicator) == OpenFolder::Kind::kFile;
}

// The names alone: what the files hold is read when their turn comes.
void PersistentDCRawBuffer::InitializeFromDisk() {
  constexpr char kTag[] = "PersistentDCRawBuffer :: InitializeFromDisk";
  logged(kTag, [&] {
    const OpenFolder folder(SwapDir_m);
    const auto names = folder ? folder.names() : std::nullopt;
    if (!names) throw UDCException(kTag, 0, "Unable to Open the Dir", errno);
    std::map<unsigned long long, std::string> swapFiles;
    for (const std::string& name : *names) {
      const OpenFolder::Kind kind = folder.kindOf(name);
      const unsigned long long number = kddc::isSwapName(name) ? GetFileNum(name.c_str()) : 0;
      if (kind == OpenFolder::Kind::kNone && kddc::isSwapName(name)) skipRestored(name);
      if (kind == OpenFolder::Kind::kNone || kddc::isStateName(name)) continue;
      if (kind == OpenFolder::Kind::kFolder) {
        noteStray(name);
      } else if (kind == OpenFolder::Kind::kFile && name == kddc::swapName(number)) {
        swapFiles.emplace(number, name);
      } else {  // a swap file under another spelling of its number could not be found again
        dbg.Error(kTag, "Encountered file [%s/%s] not in swap format", SwapDir_m.c_str(),
                  name.c_str());
        throw UDCException(kTag, 1, "Unexpected file encountered", 0);
      }
    }
    const KdMonitor::Guard guard(Monitor_m);
    for (const auto& [number, name] : swapFiles) SwapQueue_m.push_back({nullptr, number});
    WriteFileCounter_m = firstNumber_ = swapFiles.empty() ? 1 : swapFiles.rbegin()->first + 1;
  });
}

// What cannot be examined is passed over. Its records are missing now, and may turn up at a later
// start between younger ones.
void PersistentDCRawBuffer::skipRestored(const std::string& name) {
  dbg.Error("PersistentDCRawBuffer :: InitializeFromDisk",
            "cannot examine [%s/%s]: its records are lost", SwapDir_m.c_str(), name.c_str());
  ++damagedFiles_;
  const KdMonitor::Guard guard(Monitor_m);
  fileLeftBehind_ = true;
}

// Such folders are named "<database>" or "<database>_<mode>".
void PersistentDCRawBuffer::noteStray(const std::string& name) {
  const std::size_t end = name.find('_');
  StrayDbs_m.push_back(end == 0 ? name : name.substr(0, end));
  StrayFolders_m.push_back(SwapDir_m + "/" + name);
}

// Behind "swap."; a name that has no number counts as 0.
unsigned long long PersistentDCRawBuffer::GetFileNum(const char* name) {
  return std::string_view(name).size() > 5 ? static_cast<unsigned long long>(std::atoll(name + 5))
                                           : 0;
}

bool PersistentDCRawBuffer::IsRescanNeeded(std::list<std::string>* strayDbs) {
  return logged("PersistentDCRawBuffer ::  IsRescanNeeded", [&]() -> bool {
    if (strayDbs) strayDbs->insert(strayDbs->end(), StrayDbs_m.begin(), StrayDbs_m.end());
    return RescanNeeded_m;
  });
}

void PersistentDCRawBuffer::GetListOfDBsGracefullyClosed(std::list<std::string>* dbs) {
  logged("PersistentDCRawBuffer :: GetListOfDBsGracefullyClosed", [&] {
    const OpenFolder folder(cacheRoot_);
    kddc::UniqueFd file = folder ? folder.file(kddc::kClosedDbs, O_RDONLY) : kddc::UniqueFd();
    const std::unique_ptr<FILE, int (*)(FILE*)> lines(file ? ::fdopen(file.get(), "r") : nullptr,
                                                      std::fclose);
    if (!lines) return;
    file.release();  // closed with `lines`
    char line[2048];
    while (std::fgets(line, sizeof line, lines.get())) {
      std::string text = line;
      if (!text.empty()) text.pop_back();
      dbs->push_back(std::move(text));
    }
  });
}

void PersistentDCRawBuffer::FinishedHandlingCorruptDbs() {
  const OpenFolder folder(cacheRoot_);
  if (!folder || !folder.removeFile(kddc::kClosedDbs))
    dbg.Error("PersistentDCRawBuffer :: FinishedHandlingCorruptDbs",
              "unlink failed on [%s] errno[%u]", GracefullClosedDbs_m.c_str(),
              static_cast<unsigned>(errno));
}

// One number a line, appended: each database is added as it is closed.
void PersistentDCRawBuffer::DbShutDown(unsigned long long dbId) {
  constexpr char kTag[] = "PersistentDCRawBuffer :: DbShutDown";
  logged(kTag, [&] {
    const OpenFolder folder(cacheRoot_);
    if (!folder) return;
    const auto file = folder.file(kddc::kClosedDbs, O_WRONLY | O_CREAT | O_APPEND);
    if (!file) return;
    const std::string line = std::to_string(dbId) + "\n";
    const off_t end = ::lseek(file.get(), 0, SEEK_END);
    const ssize_t written = ::write(file.get(), line.data(), line.size());
    if (written == static_cast<ssize_t>(line.size())) return;
    const int error = written < 0 ? errno : ENOSPC;
    // Half a line would run into the next one and name another database.
    if (::ftruncate(file.get(), end) != 0) dbg.Error(kTag, "cannot take back half a line");
    throw UDCException(kTag, 0, "Unable to write " + GracefullClosedDbs_m, error);
  });
}

void PersistentDCRawBuffer::RemoveStrayFolders() {
  logged("PersistentDCRawBuffer :: RemoveStrayFolders", [&] {
    for (const std::string& folder : StrayFolders_m)
      if (::access(folder.c_str(), F_OK) == 0) RemoveSwapDir(folder.c_str());
    StrayFolders_m.clear();
  });
}

bool PersistentDCRawBuffer::ReadEntry(unsigned char** data, int* len) {
  if (LoadFromDiskPending_m) logged("PersistentDCRawBuffer :: ReadEntry", [&] { loadFirst(); });
  return DCRawBuffer::ReadEntry(data, len);
}

// The restored files come before the block that both sides have had since the start.
void PersistentDCRawBuffer::loadFirst() {
  constexpr char kTag[] = "PersistentDCRawBuffer :: ReadEntry";
  const KdMonitor::Guard guard(Monitor_m);
  LoadFromDiskPending_m = false;
  if (SwapQueue_m.empty()) return;
  if (ReadBuffer_m != WriteBuffer_m) queueLeftBehind();
  ReadBuffer_m = LoadBuffer_m;
  loadAndRemove(kTag, SwapQueue_m.front().fileNumber);
  SwapQueue_m.pop_front();
}

// The producer has filled its first block, which was the read block too and so is not in the queue:
// its place is behind the restored files and before what was queued since.
void PersistentDCRawBuffer::queueLeftBehind() {
  const unsigned long long number = firstNumber_;
  const auto later = std::find_if(SwapQueue_m.begin(), SwapQueue_m.end(),
                                  [&](const auto& entry) { return entry.fileNumber > number; });
  SwapQueue_m.insert(later, {ReadBuffer_m, number});
  filledTooEarly_ = true;
}

void PersistentDCRawBuffer::started(const char* tag, const char* indicator,
                                    const char* cannotDelete, std::atomic<int>& state) {
  logged(tag, [&] {
    const OpenFolder folder(SwapDir_m);
    // An indicator that came back after a power loss would vouch for records that are gone.
    if (!folder || (!folder.removeFile(indicator) && errno != ENOENT) || !folder.sync()) {
      const int error = errno;
      dbg.Error(tag, "eRRoR -- unlink failed for[%s/%s]. errno[%d]", SwapDir_m.c_str(), indicator,
                error);
      throw UDCException(tag, 0, cannotDelete, error);
    }
    JournalsSavedToDisk_m = false;
    state = 1;
  });
}

void PersistentDCRawBuffer::DriverThreadStarted() {
  started("PersistentDCRawBuffer :: DriverThreadStarted", kddc::kDriverIndicator,
          "delete failed for DriverThreadShutdownIndicator_m", DriverThreadState_m);
}

void PersistentDCRawBuffer::DbThreadStarted() {
  started("PersistentDCRawBuffer :: DbThreadStarted", kddc::kDbIndicator,
          "delete failed for DbThreadShutdownIndicator", DbThreadState_m);
}

// Under the monitor as a whole, so that of two threads that stop at once one is the second.
void PersistentDCRawBuffer::shutDown(const char* tag, const char* indicator, std::atomic<int>& own,
                                     const std::atomic<int>& other) {
  const auto stop = [&] {
    const KdMonitor::Guard guard(Monitor_m);
    own = kShutDown;
    save();
    const OpenFolder folder(SwapDir_m);
    const auto file = folder ? folder.file(indicator, O_WRONLY | O_CREAT) : kddc::UniqueFd();
    const int error = errno;
    if (other == kShutDown) JournalsSavedToDisk_m = true;
    if (!file) throw UDCException(tag, 0, "Unable to create the shutdown indicator", error);
    return true;
  };
  absorbed(tag, stop, false);
}

void PersistentDCRawBuffer::DriverThreadShutDown() {
  shutDown("PersistentDCRawBuffer :: DriverThreadShutDown", kddc::kDriverIndicator,
           DriverThreadState_m, DbThreadState_m);
}

void PersistentDCRawBuffer::DbThreadShutDown() {
  shutDown("PersistentDCRawBuffer :: DbThreadShutDown", kddc::kDbIndicator, DbThreadState_m,
           DriverThreadState_m);
}

void PersistentDCRawBuffer::Abort() {
  const auto abort = [&] {
    Aborted_m = true;
    const KdMonitor::Guard guard(Monitor_m);
    ReadBuffer_m->Abort();
    Monitor_m.broadcast();
    return true;
  };
  absorbed("PersistentDCRawBuffer :: Abort", abort, false);
}

void PersistentDCRawBuffer::FlushJournalsToDisk() {
  const KdMonitor::Guard guard(Monitor_m);
  save();
}

void PersistentDCRawBuffer::save() {
  if (DriverThreadState_m != kShutDown || DbThreadState_m != kShutDown) return;
  constexpr char kTag[] = "PersistentDCRawBuffer :: FlushJournalsToDisk";
  logged(kTag, [&]() NO_THREAD_SAFETY_ANALYSIS {  // the lock is held around the call
    saveExact_ = false;
    const bool firstIsExact = saveReadBlock(), restIsExact = saveQueueAndWriteBlock();
    syncSaved(kTag);
    saveExact_ = firstIsExact && restIsExact && !filledTooEarly_ && !fileLeftBehind_;
    dbg.Debug(kTag,
              " ****************************************** SAVED JOURNALS TO DISK "
              "******************************** ");
  });
}

// Exact unless restored files are still waiting: they came before what is in the block.
bool PersistentDCRawBuffer::saveReadBlock() {
  const bool behindRestored = LoadFromDiskPending_m && !SwapQueue_m.empty();
  const bool exact = !waitsOnDisk(0) && !(behindRestored && ReadBuffer_m->Unread() > 0);
  writeSaved(0,
             [&](int file) NO_THREAD_SAFETY_ANALYSIS { ReadBuffer_m->FlushRemainingData(file); });
  return exact;
}

// Exact when the numbers rise from file to file and none is taken twice.
bool PersistentDCRawBuffer::saveQueueAndWriteBlock() {
  bool exact = true;
  unsigned long long last = 0;
  for (Buf_File_s& entry : SwapQueue_m) {
    exact &= entry.fileNumber > last;
    last = entry.fileNumber;
    if (!entry.buffer) continue;
    writeSaved(entry.fileNumber, [&](int file) { entry.buffer->Flush(file); });
    FreeBuffers_m.push_back(entry.buffer);
    entry.buffer = nullptr;
    lastSaved_ = entry.fileNumber;
  }
  if (ReadBuffer_m == WriteBuffer_m) return exact;
  const unsigned long long number = lastSaved_ + 1;
  exact &= !waitsOnDisk(number) && (number > last || WriteBuffer_m->Unread() == 0);
  writeSaved(number,
             [&](int file) NO_THREAD_SAFETY_ANALYSIS { WriteBuffer_m->FlushRemainingData(file); });
  return exact;
}

template <class Write>
void PersistentDCRawBuffer::writeSaved(unsigned long long number, Write&& write) {
  constexpr char kTag[] = "PersistentDCRawBuffer :: FlushJournalsToDisk";
  const auto file = kddc::createSwapFile(SwapDir_m, number, SwapFilePermissions_m);
  if (!file) throw UDCException(kTag, 0, "swap file open failed", errno);
  try {
    write(file.get());
  } catch (...) {
    kddc::removeSwapFile(kTag, SwapDir_m, number);  // half of it, and the block still has the whole
    throw;
  }
}

// An indicator that outlives a power loss must not vouch for files that do not.
void PersistentDCRawBuffer::syncSaved(const char* tag) {
  bool lasting = kddc::syncSwapFile(SwapDir_m, 0) && kddc::syncSwapFile(SwapDir_m, lastSaved_ + 1);
  for (const Buf_File_s& entry : SwapQueue_m)
    lasting = lasting && kddc::syncSwapFile(SwapDir_m, entry.fileNumber);
  if (!lasting || !OpenFolder(SwapDir_m).sync())
    throw UDCException(tag, 0, "swap file sync failed", errno);
}

// Saving under a number that a file has already would overwrite records.
bool PersistentDCRawBuffer::waitsOnDisk(unsigned long long number) const {
  return std::any_of(SwapQueue_m.begin(), SwapQueue_m.end(), [&](const Buf_File_s& entry) {
    return !entry.buffer && entry.fileNumber == number;
  });
}
