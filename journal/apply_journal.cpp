// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The dispatcher. What sets the commands apart is one row of kCommands each; what they share, the
// clock, the statistics and the end of every failure, stands once, in ApplyJournal.
#include "journal/apply_journal.h"

#include <array>

#include "journal/stopwatch.h"
#include "platform/ev_debug.h"
#include "platform/logged.h"
#include "records/record_layout.h"
#include "support/journal_stats.h"

using kddc::fid2str;
using kddc::Payload;

namespace {

using Record = FlrJrnCommandRaw;

constexpr char kTag[] = "ApplyJournal";
constexpr int kNames = 4, kAttributes = 6;  // log levels

// What happens to the records of one command. `say` is called only when its level is on, so that it
// may build texts freely.
struct Command {
  FlrJrnCmd code;
  int level;
  void (*say)(const Record&, int level);
  void (*apply)(DCSqliteDB&, const Record&);
};

template <auto Member>
void sayFid(const Record& r, int level) {
  dbg.DebugLvl(kTag, level, "Devt[%llu] %s fid[%s]", r.devt, kddc::commandName(r.cmd),
               fid2str((r.u.*Member).fid).c_str());
}

template <auto Member, auto Name>
void sayName(const Record& r, int level) {
  dbg.DebugLvl(kTag, level, "Devt[%llu] %s name[%s]", r.devt, kddc::commandName(r.cmd),
               r.u.*Member.*Name);
}

// These two have always been said without the prefix, but with the sequence number: they are the
// lines by which a file is followed through a log.
void sayCreate(const Record& r, int level) {
  const FlrJrnCreateRaw& create = r.u.create;
  dbg.DebugLvl(kTag, level, "Devt[%llu] SeqNum[%llu] CREATE fid[%s] name[%s] par_fid[%s]", r.devt,
               r.seq_num, fid2str(create.fid).c_str(), create.short_name,
               fid2str(create.par_fid).c_str());
}

void sayRemove(const Record& r, int level) {
  const FlrJrnRemoveRaw& remove = r.u.remove;
  dbg.DebugLvl(kTag, level, "Devt[%llu] SeqNum[%llu] REMOVE fid[%s] name[%s] par_fid[%s]", r.devt,
               r.seq_num, fid2str(remove.file_fid).c_str(), remove.short_name,
               fid2str(remove.par_fid).c_str());
}

void sayLink(const Record& r, int level) {
  const FlrJrnLinkRaw& link = r.u.link;
  dbg.DebugLvl(kTag, level, "Devt[%llu] FLR_JRN_LINK name[%s] fid[%s] ParentFid[%s]", r.devt,
               link.dst_short_name, fid2str(link.src_fid).c_str(),
               fid2str(link.dst_par_fid).c_str());
}

void sayRename(const Record& r, int level) {
  const FlrJrnRenameRaw& rename = r.u.rename;
  dbg.DebugLvl(kTag, level,
               "Devt[%llu] FLR_JRN_RENAME src_name[%s] dst_name[%s] src_par_fid[%s] "
               "dst_par_fid[%s] src_fid[%s] dst_fid_valid[%d] dst_fid[%s]",
               r.devt, rename.src_short_name, rename.dst_short_name,
               fid2str(rename.src_par_fid).c_str(), fid2str(rename.dst_par_fid).c_str(),
               fid2str(rename.src_fid).c_str(), static_cast<int>(rename.dst_fid_valid),
               rename.dst_fid_valid != 0 ? fid2str(rename.dst_fid).c_str() : "NULL");
}

// Operations take their time as an int, from which rows get the same 32 bits back. Remove alone has
// room for the number as it is.
int timeOf(const Record& r) {
  return static_cast<int>(r.timestamp);
}

template <auto Member>
void applyAdditional(DCSqliteDB& db, const Record& r) {
  db.SetAdditionalAttr(&(r.u.*Member).fid, timeOf(r));
}

// Commands without a row change data alone, or nothing that a catalogue holds.
constexpr Command kCommands[] = {
    {FLR_JRN_SETATTR, kAttributes, sayFid<&Payload::setattr>,
     [](DCSqliteDB& db, const Record& r) { db.SetAttr(r.u.setattr, timeOf(r)); }},
    {FLR_JRN_CREATE, kNames, sayCreate,
     [](DCSqliteDB& db, const Record& r) { db.Create(r.u.create); }},
    {FLR_JRN_MKDIR, kNames, sayName<&Payload::mkdir, &FlrJrnMkDirRaw::short_name>,
     [](DCSqliteDB& db, const Record& r) { db.MkDir(r.u.mkdir); }},
    {FLR_JRN_REMOVE, kNames, sayRemove,
     [](DCSqliteDB& db, const Record& r) { db.Remove(r.u.remove, r.timestamp); }},
    {FLR_JRN_RMDIR, kNames, sayName<&Payload::rmdir, &FlrJrnRmDirRaw::short_name>,
     [](DCSqliteDB& db, const Record& r) { db.RemoveDir(r.u.rmdir, timeOf(r)); }},
    {FLR_JRN_LINK, kNames, sayLink,
     [](DCSqliteDB& db, const Record& r) { db.CreateLink(r.u.link, timeOf(r)); }},
    {FLR_JRN_SYMLINK, kNames, sayName<&Payload::symlink, &FlrJrnSymLinkRaw::dst_short_name>,
     [](DCSqliteDB& db, const Record& r) { db.CreateSymLink(r.u.symlink, timeOf(r)); }},
    {FLR_JRN_RENAME, kNames, sayRename,
     [](DCSqliteDB& db, const Record& r) { db.Rename(r.u.rename, timeOf(r)); }},
    {FLR_JRN_SET_ACL, kAttributes, sayFid<&Payload::set_acl>, applyAdditional<&Payload::set_acl>},
    {FLR_JRN_SETXATTR, kAttributes, sayFid<&Payload::setxattr>,
     applyAdditional<&Payload::setxattr>},
    {FLR_JRN_RMXATTR, kAttributes, sayFid<&Payload::rmxattr>, applyAdditional<&Payload::rmxattr>},
    {FLR_JRN_STUB, kNames, sayFid<&Payload::stub>,
     [](DCSqliteDB& db, const Record& r) { db.Stub(r.u.stub, timeOf(r)); }},
    {FLR_JRN_UNSTUB, kNames, sayFid<&Payload::unstub>,
     [](DCSqliteDB& db, const Record& r) { db.UnStub(r.u.unstub, timeOf(r)); }},
    {FLR_JRN_SETXATTR_AIX, kAttributes, sayFid<&Payload::setxattr>,
     applyAdditional<&Payload::setxattr>},
    {FLR_JRN_RMXATTR_AIX, kAttributes, sayFid<&Payload::rmxattr>,
     applyAdditional<&Payload::rmxattr>},
};

// So that a record is dispatched by one load, whatever the number of commands.
constexpr auto kByCode = [] {
  std::array<const Command*, FLR_JRN_TXTMSG + 1> byCode{};
  for (const Command& command : kCommands) byCode[command.code] = &command;
  return byCode;
}();

const Command* commandOf(unsigned int cmd) {
  return cmd < kByCode.size() ? kByCode[cmd] : nullptr;
}

}  // namespace

bool ApplyJournal(DCSqliteDB* db, const FlrJrnCommandRaw& record) {
  const auto apply = [&] {
    const kddc::Stopwatch watch;
    if (const Command* command = commandOf(record.cmd)) {
      if (dbg.Enabled(command->level)) command->say(record, command->level);
      command->apply(*db, record);
    }
    UnixDCUpdateTimeStats(record.devt, static_cast<int>(record.cmd), watch.nanoseconds());
    return true;
  };
  return kddc::absorbed(kTag, apply, false);
}

bool kddc::changesCatalogue(unsigned int cmd) noexcept {
  return commandOf(cmd) != nullptr;
}
