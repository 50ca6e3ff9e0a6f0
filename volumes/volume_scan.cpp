// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One pass over the mount table, one over the rows, and in monitor mode one over the volumes that
// are no longer chosen. Each mount point and each row is committed before the next is looked at, so
// that a failure costs no other's work.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "platform/ev_debug.h"
#include "platform/exceptions.h"
#include "platform/mount_table.h"
#include "platform/platform_info.h"
#include "volumes/registry_database.h"
#include "volumes/volume_lists.h"
#include "volumes/volume_registry.h"

using kddc::sqlLiteral;

namespace {

constexpr char kTag[] = "scan_and_update_volumes";
constexpr char kSection[] = "DataClassification";

using Texts = std::list<std::string>;

bool isSet(const char* key) {
  long long number = 0;
  KDPlatformInfo::getNumber(kSection, key, &number);
  return number != 0;
}

std::string orEmpty(const char* text) {
  return text ? text : "";
}

bool isNetworkOrAutomount(const std::string& fsType) {
  return fsType.starts_with("nfs") || fsType == "autofs";
}

// Runs `step`; a failure is logged and ends here.
// The host calls this now and then and does not look at what comes of it, so nothing gets out.
template <class Step>
void attempt(Step step) {
  try {
    step();
  } catch (const UDCException& e) {
    dbg.Error(kTag, "eRRoR -- UDCException: %s ", e.what());
  } catch (...) {
    dbg.Error(kTag, "eRRoR --  UnExpected Exception on ");
    kddc::logReason(kTag);
  }
}

class VolumeScan {
 public:
  VolumeScan(const char* volListFile, bool filterMode, const char* logFolder,
             const char* rawBufferFolder, const Texts& snapMounts)
      : filterMode_(filterMode),
        logFolder_(orEmpty(logFolder)),
        rawBufferFolder_(orEmpty(rawBufferFolder)),
        snapMounts_(snapMounts) {
    ReadVolListFromFile(orEmpty(volListFile), shared_);
    KDPlatformInfo::getString(kSection, "DB_FOLDER", &dbFolder_);
    monitorRoot_ = isSet("nEnableMonitoringForRoot");
    mounts_ = KdMntTab::getAll();
    db_ = kddc::openRegistry();
  }

  void addMounted();
  void updateRows();
  // Closes the registry, which StopAndFilter opens for itself.
  void stopUnchosen(bool (*stopCallback)(const char*));
  void close() { db_->closedb(false); }

 private:
  template <class Work>
  void alone(Work work);
  void add(const KdMntEntry& entry);
  bool mayBeMonitored(const KdMntEntry& entry) const;
  bool rootMayBeMonitored() const;
  const char* reasonToSkip(const std::string& mountPoint) const;
  bool forgetIfFiltered(const std::string& mountPoint);
  bool isMonitored(const std::string& mountPoint);
  void keepOrReplace(const KdMntEntry& entry, char driverSupport);
  int nextNumber();
  void updateRow(const std::string& mountPoint, bool retain);
  const KdMntEntry* mountAt(const std::string& mountPoint) const;
  int isLocal(const std::string& mountPoint) const {
    return VolShared(mountPoint, shared_) ? 0 : 1;
  }

  void run(const std::string& sql);
  // The first column of the answer.
  Texts ask(const std::string& sql);
  Texts askAndTell(const std::string& sql, const char* whereTo);

  bool filterMode_;
  bool monitorRoot_ = false;
  std::string dbFolder_ = "NULL";
  std::string logFolder_, rawBufferFolder_;
  const Texts& snapMounts_;
  Texts shared_;
  std::vector<KdMntEntry> mounts_;
  std::unique_ptr<UDC_DBMS> db_;
};

// Commits whatever became of it: the next mount point or row shall neither lose this one's work nor
// read the database as it was before.
template <class Work>
void VolumeScan::alone(Work work) {
  attempt(work);
  attempt([&] { db_->Commit(); });
}

void VolumeScan::addMounted() {
  for (const KdMntEntry& entry : mounts_) alone([&] { add(entry); });
}

void VolumeScan::add(const KdMntEntry& entry) {
  const char* mountPoint = entry.mountPoint.c_str();
  dbg.Debug(kTag, "Mount point:%s , fstype:%s , list size:%lu", mountPoint, entry.fsType.c_str(),
            static_cast<unsigned long>(mounts_.size()));
  if (!mayBeMonitored(entry)) return;
  dbg.DebugLvl(kTag, 2, "Accessing %s", mountPoint);
  const bool chosen =
      filterMode_ ? !forgetIfFiltered(entry.mountPoint) : isMonitored(entry.mountPoint);
  char driverSupport = '\0';
  if (chosen && supported_fs_type(entry.fsType.c_str(), &driverSupport))
    keepOrReplace(entry, driverSupport);
}

bool VolumeScan::mayBeMonitored(const KdMntEntry& entry) const {
  // First, because a dead server would hold whoever touches the mount point.
  if (isNetworkOrAutomount(entry.fsType)) return false;
  if (entry.mountPoint == "/" && !rootMayBeMonitored()) return false;
  if (const char* reason = reasonToSkip(entry.mountPoint)) {
    dbg.Debug(kTag, "%s is skipped as it %s", entry.mountPoint.c_str(), reason);
    return false;
  }
  return access(entry.mountPoint.c_str(), R_OK | W_OK | X_OK) == 0;
}

bool VolumeScan::rootMayBeMonitored() const {
  dbg.DebugLvl(kTag, 1,
               monitorRoot_ ? "Root volume will be added for Monitoring"
                            : "Root volume will NOT be Monitored");
  return monitorRoot_;
}

const char* VolumeScan::reasonToSkip(const std::string& mountPoint) const {
  if (VolShared(mountPoint, snapMounts_)) return "is a snap mount";
  if (mountPoint == logFolder_) return "holds Logs for this software";
  if (mountPoint == rawBufferFolder_) return "holds RawBuffer";
  return nullptr;
}

// Asked before the type is: a volume that was filtered loses its row, whatever it is now.
bool VolumeScan::forgetIfFiltered(const std::string& mountPoint) {
  const std::string literal = sqlLiteral(mountPoint);
  if (ask("SELECT * FROM FILTER WHERE VOLNAME=" + literal).empty()) return false;
  dbg.Debug(kTag, "%s is in Filter table so Ignoring", mountPoint.c_str());
  run("DELETE FROM VOLUME WHERE MOUNT_POINT=" + literal);
  return true;
}

bool VolumeScan::isMonitored(const std::string& mountPoint) {
  if (!ask("SELECT * FROM MONITOR WHERE VOLNAME=" + sqlLiteral(mountPoint)).empty()) return true;
  dbg.DebugLvl(kTag, 2, "%s is in not in Monitor table so Ignoring", mountPoint.c_str());
  return false;
}

void VolumeScan::keepOrReplace(const KdMntEntry& entry, char driverSupport) {
  const std::string where = " FROM VOLUME WHERE MOUNT_POINT=" + sqlLiteral(entry.mountPoint);
  const Texts devices = ask("SELECT DEVLABEL" + where);
  if (!devices.empty() && devices.front() == entry.device) return;
  // What is known of a row is true of one device only.
  if (!devices.empty()) run("DELETE" + where);
  const int number = nextNumber();
  run(kddc::volumeInsertQuery({entry.mountPoint, entry.device, entry.fsType, driverSupport, number,
                               dbFolder_, isLocal(entry.mountPoint)}));
}

// The row id that SQLite will give the next row; of an empty table the greatest one is NULL. Added
// to without a sign: the greatest number of all, which anybody may have written, has no next one.
int VolumeScan::nextNumber() {
  const int greatest = std::atoi(ask("SELECT MAX(ROWID) FROM VOLUME").front().c_str());
  return static_cast<int>(static_cast<unsigned int>(greatest) + 1);
}

// The setting first: without it nobody can say what is to become of the rows.
void VolumeScan::updateRows() {
  const bool retain = isSet("nRetainUnMountedVolumes");
  dbg.DebugLvl(kTag, 2, "handle unmounted volumes");
  for (const std::string& mountPoint : ask("SELECT MOUNT_POINT FROM VOLUME"))
    alone([&] { updateRow(mountPoint, retain); });
}

void VolumeScan::updateRow(const std::string& mountPoint, bool retain) {
  const std::string where = " WHERE MOUNT_POINT = " + sqlLiteral(mountPoint);
  const KdMntEntry* entry = mountAt(mountPoint);
  struct stat st {};
  if (entry && lstat(mountPoint.c_str(), &st) == 0) {
    run("UPDATE VOLUME SET DEVTYPE=" + std::to_string(static_cast<long long>(st.st_dev)) +
        " , BLOCKSIZE = " + std::to_string(static_cast<unsigned long>(st.st_blksize)) +
        " , DEVLABEL = " + sqlLiteral(entry->device) + " , FSTYPE = " + sqlLiteral(entry->fsType) +
        " , LOCAL = " + std::to_string(isLocal(mountPoint)) + "  " + where);
  } else if (retain) {
    dbg.Debug(kTag, "[%s] is no longer mounted but retaining the volume entry as user chose to",
              mountPoint.c_str());
  } else {
    run("DELETE FROM VOLUME" + where);
  }
}

// The last of several, which covers the others and is what lstat sees.
const KdMntEntry* VolumeScan::mountAt(const std::string& mountPoint) const {
  const auto found = std::find_if(mounts_.rbegin(), mounts_.rend(), [&](const KdMntEntry& entry) {
    return entry.mountPoint == mountPoint;
  });
  return found == mounts_.rend() ? nullptr : &*found;
}

// All that is to be known is asked before the first volume is stopped: a list that could not be
// read must not look like one that names nobody.
void VolumeScan::stopUnchosen(bool (*stopCallback)(const char*)) {
  const Texts monitored = askAndTell("SELECT VOLNAME FROM MONITOR", "VolsInMonitorTable");
  const Texts known = askAndTell("SELECT MOUNT_POINT FROM VOLUME", "VolsInVolumeTable");
  close();
  for (const std::string& mountPoint : known) {
    dbg.DebugLvl(kTag, 2, "Checking if %s in Filter table", mountPoint.c_str());
    if (!VolShared(mountPoint, monitored)) StopAndFilter(mountPoint.c_str(), stopCallback);
  }
}

Texts VolumeScan::askAndTell(const std::string& sql, const char* whereTo) {
  Texts names = ask(sql);
  for (const std::string& name : names)
    dbg.DebugLvl(kTag, 2, "Adding %s to %s", name.c_str(), whereTo);
  return names;
}

void VolumeScan::run(const std::string& sql) {
  dbg.DebugLvl(kTag, 2, "Exec query: %s", sql.c_str());
  db_->exec_query(sql.c_str());
}

Texts VolumeScan::ask(const std::string& sql) {
  dbg.DebugLvl(kTag, 2, "Exec query: %s", sql.c_str());
  db_->exec_query_get_table(sql.c_str());
  return kddc::firstColumn(*db_);
}

}  // namespace

void scan_and_update_volumes(const char* volListFile, bool filterMode,
                             bool (*stopCallback)(const char*), const char* logFolder,
                             const char* rawBufferFolder,
                             const std::list<std::string>& snapMounts) {
  attempt([&] {
    VolumeScan scan(volListFile, filterMode, logFolder, rawBufferFolder, snapMounts);
    scan.addMounted();
    scan.updateRows();
    if (filterMode)
      scan.close();
    else
      scan.stopUnchosen(stopCallback);
  });
}
