// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Records merged in memory, and their way into rows.
#include "journal/cumulative_journal.h"

#include <algorithm>
#include <ctime>
#include <span>
#include <type_traits>
#include <utility>

#include "journal/identifier.h"
#include "journal/new_entry.h"
#include "journal/stopwatch.h"
#include "platform/logged.h"
#include "platform/platform_info.h"

using kddc::inodeOf;
using kddc::inodesOf;
using kddc::loggedWithKd;

namespace {

using Stat = struct stat;

constexpr int kNames = 4, kDetails = 6;  // log levels
constexpr char kUpdateFileAttribs[] = "CumulativeJournal :: UpdateFileAttribs";

// One attribute: its flags in a record and in an entry, and its way between the three places that
// hold it.
struct Attribute {
  unsigned char FlrJrnSetAttrRaw::*sent;
  bool DCJrn::*valid;
  void (*take)(Stat& to, const FlrJrnSetAttrRaw& from);
  void (*copy)(Stat& to, const Stat& from);
  bool (*differ)(const Stat& a, const Stat& b);

  bool changes(const DCJrn& entry, const Stat& row) const {
    return entry.*valid && differ(entry.st, row);
  }
};

unsigned long long numberOf(unsigned long long value) {
  return value;
}
long long numberOf(const FlrJrnTime& time) {
  return time.tv_sec;
}

// What a path of members leads to: one member of a stat, or a time and its seconds.
template <auto Member, auto... Path>
auto& at(auto& place) {
  if constexpr (sizeof...(Path) == 0)
    return place.*Member;
  else
    return at<Path...>(place.*Member);
}

template <auto Value, auto... Path>
constexpr Attribute attribute(unsigned char FlrJrnSetAttrRaw::*sent, bool DCJrn::*valid) {
  return {
      .sent = sent,
      .valid = valid,
      .take =
          [](Stat& to, const FlrJrnSetAttrRaw& from) {
            auto& number = at<Path...>(to);
            number = static_cast<std::remove_reference_t<decltype(number)>>(numberOf(from.*Value));
          },
      .copy = [](Stat& to, const Stat& from) { at<Path...>(to) = at<Path...>(from); },
      .differ = [](const Stat& a, const Stat& b) { return at<Path...>(a) != at<Path...>(b); },
  };
}

// The spans below take them by their places: those that only a change of content moves, then the
// modification time, the change time, and last the access time, which counts as no change.
using Raw = FlrJrnSetAttrRaw;
constexpr Attribute kAttributes[] = {
    attribute<&Raw::mode, &Stat::st_mode>(&Raw::mode_valid, &DCJrn::modeValid),
    attribute<&Raw::uid, &Stat::st_uid>(&Raw::uid_valid, &DCJrn::uidValid),
    attribute<&Raw::gid, &Stat::st_gid>(&Raw::gid_valid, &DCJrn::gidValid),
    attribute<&Raw::size, &Stat::st_size>(&Raw::size_valid, &DCJrn::sizeValid),
    attribute<&Raw::blocks, &Stat::st_blocks>(&Raw::blocks_valid, &DCJrn::blocksValid),
    attribute<&Raw::mtime, &Stat::st_mtim, &timespec::tv_sec>(&Raw::mtime_valid,
                                                              &DCJrn::mtimeValid),
    attribute<&Raw::ctime, &Stat::st_ctim, &timespec::tv_sec>(&Raw::ctime_valid,
                                                              &DCJrn::ctimeValid),
    attribute<&Raw::atime, &Stat::st_atim, &timespec::tv_sec>(&Raw::atime_valid,
                                                              &DCJrn::atimeValid),
};
constexpr std::span kAll(kAttributes);
constexpr auto kOther = kAll.first<5>();
constexpr const Attribute& kModificationTime = kAll[5];
constexpr const Attribute& kChangeTime = kAll[6];
constexpr auto kButAccessTime = kAll.first<7>();

// A flag is set when it is not 0: other than the base, which writes a value only for a 1.
void merge(DCJrn& entry, const FlrJrnSetAttrRaw& record) {
  for (const Attribute& a : kAll) {
    if (record.*a.sent == 0) continue;
    a.take(entry.st, record);
    entry.*a.valid = true;
  }
}

bool isAccessTimeAlone(const DCJrn& entry) {
  const auto valid = [&](const Attribute& a) { return entry.*a.valid; };
  return !entry.spareValid && std::ranges::none_of(kButAccessTime, valid);
}

// One of the rows of a file.
struct Row {
  unsigned long long inode = 0;
  Stat st{};
  unsigned long time = 0;

  void say(const char* what) const {
    dbg.DebugLvl(kUpdateFileAttribs, kDetails, "DB Inode[%llu] %s", inode, what);
  }
};

Stat attributesOf(const DCJrn& entry, const Row& row) {
  Stat st = row.st;
  for (const Attribute& a : kAll)
    if (entry.*a.valid) a.copy(st, entry.st);
  return st;
}

enum class Change { kNone, kTimeOfChange, kContent };

Change changeOf(const DCJrn& entry, const Row& row) {
  const auto changes = [&](const Attribute& a) { return a.changes(entry, row.st); };
  const bool modified = changes(kModificationTime);
  if (modified) row.say("Mtime Changed");
  if (modified || std::ranges::any_of(kOther, changes)) return Change::kContent;
  return changes(kChangeTime) ? Change::kTimeOfChange : Change::kNone;
}

// A time that no record brought counts as 0 here.
time_t stampOf(const DCJrn& entry, Change change, const Row& row, time_t openTime) {
  const auto stamp = static_cast<time_t>(row.time);
  if (change == Change::kTimeOfChange) {  // as utime leaves it: nothing to back up
    row.say("UtimeJournal");
    return stamp;
  }
  const time_t changed = std::max(entry.st.st_mtime, entry.st.st_ctime);
  if (changed < openTime) {
    row.say("Journal created before DB was opened");
    return std::time(nullptr);
  }
  row.say("Regular Journal");
  return changed < stamp ? std::time(nullptr) : changed;
}

}  // namespace

CumulativeJournal::CumulativeJournal(std::string folder) : DCSqliteDB(std::move(folder)) {
  loggedWithKd("CumulativeJournal :: CumulativeJournal", [&] {
    long long limit = 0;
    if (KDPlatformInfo::getNumber("DataClassification", "SimultaneousFileAcess", &limit))
      mapLimit = static_cast<unsigned long long>(limit);
  });
}

CumulativeJournal::~CumulativeJournal() = default;

void CumulativeJournal::SetAttr(const FlrJrnSetAttrRaw& record, int time) {
  loggedWithKd("CumulativeJournal :: SetAttr", [&] {
    if (mapLimit == 0) return DCSqliteDB::SetAttr(record, time);
    auto pending = journalMap.find(record.fid);
    if (pending == journalMap.end()) {
      AddFidToJournalMap(record.fid, false);
      pending = journalMap.find(record.fid);
    }
    DCJrn& entry = pending->second;
    entry.time = time;
    merge(entry, record);
    ++entry.count;
  });
}

void CumulativeJournal::Create(const FlrJrnCreateRaw& record) {
  loggedWithKd("CumulativeJournal :: Create", [&] {
    if (mapLimit == 0) return DCSqliteDB::Create(record);
    AddFidToJournalMap(record.fid, true);
    DCJrn& entry = journalMap.at(record.fid);
    entry.created = true;
    entry.time = std::time(nullptr);
    entry.name = record.short_name;
    kddc::describeNew(entry.st, record, 1);
    entry.parentInode = inodeOf(*this, record.par_fid);
    ++entry.count;
  });
}

// The row of a file that came and went between two flushes was never written, and nothing is to be
// removed.
void CumulativeJournal::Remove(const FlrJrnRemoveRaw& record, unsigned long time) {
  loggedWithKd("CumulativeJournal :: UnStub", [&] {  // sic: as it stands in the logs
    bool neverWritten = false;
    FindAndRemoveJournal(record.file_fid, &neverWritten);
    if (!neverWritten) DCSqliteDB::Remove(record, time);
  });
}

void CumulativeJournal::Stub(const FlrJrnStubRaw& record, int time) {
  loggedWithKd("CumulativeJournal :: Stub", [&] {
    FindAndFlushJournal(record.fid);
    DCSqliteDB::Stub(record, time);
  });
}

void CumulativeJournal::UnStub(const FlrJrnUnStubRaw& record, int time) {
  loggedWithKd("CumulativeJournal :: UnStub", [&] {
    FindAndFlushJournal(record.fid);
    DCSqliteDB::UnStub(record, time);
  });
}

void CumulativeJournal::CreateLink(const FlrJrnLinkRaw& record, int time) {
  loggedWithKd("CumulativeJournal :: CreateLink", [&] {
    FindAndFlushJournal(record.src_fid);
    DCSqliteDB::CreateLink(record, time);
  });
}

// The names of others may depend on what is pending: a folder that is created and renamed at once,
// or a file that takes the name of another.
void CumulativeJournal::Rename(const FlrJrnRenameRaw& record, int time) {
  loggedWithKd("CumulativeJournal :: Rename", [&] {
    FlushAllJournals();
    DCSqliteDB::Rename(record, time);
  });
}

void CumulativeJournal::CloseHandle(unsigned long refTime, bool keepUngraceful) {
  loggedWithKd("CumulativeJournal :: CloseHandle", [&] {
    FlushAllJournals();
    DCSqliteDB::CloseHandle(refTime, keepUngraceful);
  });
}

void CumulativeJournal::CreateSymLink(const FlrJrnSymLinkRaw& record, int time) {
  loggedWithKd("CumulativeJournal :: CreateSymLink",
               [&] { DCSqliteDB::CreateSymLink(record, time); });
}

// Not "at least": with a limit of 0 the table is full as long as it is empty, and the operations
// ask for that limit before they come here.
bool CumulativeJournal::IsJournalMapFull() const {
  return journalMap.size() == mapLimit;
}

void CumulativeJournal::AddFidToJournalMap(const fsf_fid& fid, bool /*created*/) {
  loggedWithKd("CumulativeJournal :: AddFidToJournalMap", [&] {
    if (IsJournalMapFull()) FlushAllJournals();
    journalMap.try_emplace(fid);
  });
}

void CumulativeJournal::FindAndRemoveJournal(const fsf_fid& fid, bool* wasCreated) {
  loggedWithKd("CumulativeJournal :: FindAndRemoveJournal", [&] {
    if (mapLimit == 0) return;
    const auto pending = journalMap.find(fid);
    if (pending == journalMap.end()) return;
    if (wasCreated) *wasCreated = pending->second.created;
    journalMap.erase(pending);
  });
}

void CumulativeJournal::FindAndFlushJournal(const fsf_fid& fid) {
  loggedWithKd("CumulativeJournal :: FindAndFlushJournal", [&] {
    if (mapLimit == 0) return;
    const auto pending = journalMap.find(fid);
    if (pending == journalMap.end()) return;
    DCJrn& entry = pending->second;
    if (entry.created) {
      Insert(fid, entry);
    } else {
      entry.inodes = inodesOf(*this, fid);
      UpdateFileAttribs(entry);
    }
    journalMap.erase(pending);
  });
}

void CumulativeJournal::FlushAllJournals() {
  loggedWithKd("CumulativeJournal :: FlushAllJournals", [&] {
    if (mapLimit == 0) return;
    const kddc::Stopwatch watch;
    // In three passes, each of which stays with the pages that it needs.
    for (auto& [fid, entry] : journalMap)
      if (!entry.created) entry.inodes = inodesOf(*this, fid);
    for (auto& [fid, entry] : journalMap)
      if (!entry.created) UpdateFileAttribs(entry);
    for (auto& [fid, entry] : journalMap)
      if (entry.created) Insert(fid, entry);
    journalMap.clear();
    UnixDCUpdateFlushJournalTimeStats(devt, watch.nanoseconds());
  });
}

void CumulativeJournal::Insert(const fsf_fid& fid, DCJrn& entry) {
  constexpr char kTag[] = "CumulativeJournal :: Insert";
  loggedWithKd(kTag, [&] {
    dbg.DebugLvl(kTag, kNames, "Count=%d", entry.count);
    StatFidName_s created{.st = entry.st, .fid = fid, .name = entry.name};
    DCSqliteDB::Insert(&created, entry.parentInode, entry.fileType);
  });
}

bool CumulativeJournal::UpdateFileAttribs(DCJrn& entry) {
  return loggedWithKd(kUpdateFileAttribs, [&] {
    dbg.DebugLvl(kUpdateFileAttribs, kNames, "Count=%d", entry.count);
    // What was not sent is 0 here as well.
    const auto accessTime = static_cast<unsigned long>(entry.st.st_atime);
    if (isAccessTimeAlone(entry)) {
      dbg.DebugLvl(kUpdateFileAttribs, kDetails, "OnlyAtimeValid");
      return UpdateAtime(entry.inodes, accessTime) != 0;
    }
    Row row;
    // Of names whose row is lost nothing can be taken over, least of all into the rows of others.
    const auto known = std::ranges::find_if(entry.inodes, [&](unsigned long long inode) {
      return GetStatInfo(inode, &row.st, &row.time);
    });
    if (known == entry.inodes.end()) return true;
    row.inode = *known;

    const Change change = changeOf(entry, row);
    if (change == Change::kNone) {
      row.say("AtimeJournal");
      return UpdateAtime(entry.inodes, accessTime) != 0;
    }
    Stat st = attributesOf(entry, row);
    const auto stamp = static_cast<unsigned long>(stampOf(entry, change, row, openTime));
    for (const unsigned long long inode : entry.inodes) Update(inode, &st, stamp);
    return true;
  });
}
