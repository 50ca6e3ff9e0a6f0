// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The floor of the journal's benchmark: each record as the SQL that it comes to, lookup by lookup
// and update by update. Statements are prepared where the real ones are, and text where those are
// text. Knows the records of bench/journal_stream.h and no others.
#pragma once

#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <string>
#include <vector>

#include "bench/bare_catalogue.h"
#include "records/journal_record.h"

namespace kddc::bench {

class BareJournal : public BareCatalogue {
 public:
  using BareCatalogue::BareCatalogue;

  void apply(const FlrJrnCommandRaw& r) {
    const auto& u = r.u;
    const int time = static_cast<int>(r.timestamp);
    switch (r.cmd) {
      // clang-format off
      case FLR_JRN_SETATTR: return setAttr(u.setattr);
      case FLR_JRN_CREATE: return create(u.create, 1, 0);
      case FLR_JRN_MKDIR: return create(u.mkdir, 2, kFolder);
      case FLR_JRN_REMOVE: return remove(u.remove, time);
      case FLR_JRN_RMDIR: return deleteRow(rowsOf(u.rmdir.dir_fid));
      case FLR_JRN_LINK: return link(u.link, time);
      case FLR_JRN_SYMLINK: return symLink(u.symlink, time);
      case FLR_JRN_RENAME: return rename(u.rename, time);
      case FLR_JRN_SET_ACL: return setAcl(u.set_acl.fid, time);
      case FLR_JRN_STUB: return stub(u.stub.fid, time);
      case FLR_JRN_UNSTUB: return unStub(u.unstub.fid);
      default: std::abort();
        // clang-format on
    }
  }

 private:
  static constexpr int kFolder = 1, kLink = 2, kStub = 8;

  static int now() { return static_cast<int>(::time(nullptr)); }

  void setAttr(const FlrJrnSetAttrRaw& r) {
    rowsOf(r.fid);
    for (const long long inode : inodes_) {
      char sql[256];
      std::snprintf(sql, sizeof sql,
                    "UPDATE FILES SET MTIME=%lld , CTIME=%lld , SIZE=%llu , BLOCKSUSED=%llu ,  "
                    "TIME=%u WHERE INODE=%lld",
                    r.mtime.tv_sec, r.ctime.tv_sec, r.size, r.blocks, static_cast<unsigned>(now()),
                    inode);
      files_.write(sql);
    }
  }

  template <class Record>
  void create(const Record& r, nlink_t links, int type) {
    struct stat st {};
    st.st_mode = r.mode;
    st.st_nlink = links;
    st.st_uid = static_cast<uid_t>(r.uid);
    st.st_gid = static_cast<gid_t>(r.gid);
    st.st_atime = r.atime.tv_sec;
    st.st_mtime = st.st_ctime = r.mtime.tv_sec;
    insert(st, r.fid, r.short_name, inodeOf(r.par_fid), type);
  }

  void symLink(const FlrJrnSymLinkRaw& r, int time) {
    struct stat st {};
    st.st_mode = 0120777;
    st.st_nlink = 1;
    st.st_uid = static_cast<uid_t>(r.uid);
    st.st_gid = static_cast<gid_t>(r.gid);
    st.st_size = static_cast<off_t>(std::strlen(r.src_name));
    st.st_atime = st.st_mtime = st.st_ctime = time;
    insert(st, r.dst_fid, r.dst_short_name, inodeOf(r.dst_par_fid), kLink);
  }

  void link(const FlrJrnLinkRaw& r, int time) {
    const Row row = rowsOf(r.src_fid);
    const std::vector<long long> links = inodes_;
    struct stat st {};
    getStat_.bind(row.inode).readFirst([&](sqlite3_stmt* columns) {
      const auto column = [&](int i) { return sqlite3_column_int64(columns, i); };
      st.st_mode = static_cast<mode_t>(column(0));
      st.st_uid = static_cast<uid_t>(column(2));
      st.st_gid = static_cast<gid_t>(column(3));
      st.st_size = column(4);
      st.st_blocks = column(5);
      st.st_atime = column(6);
      st.st_mtime = column(7);
    });
    st.st_nlink = links.size() + 1;
    st.st_ctime = time;
    insert(st, r.src_fid, r.dst_short_name, inodeOf(r.dst_par_fid), 0);
    for (const long long inode : links) stampLink(inode, time, static_cast<int>(st.st_nlink));
  }

  void remove(const FlrJrnRemoveRaw& r, int time) {
    if (r.nlink == 0) return deleteRow(rowsOf(r.file_fid));
    deleteRow(rowAt(inodeOf(r.par_fid), r.short_name));
    rowsOf(r.file_fid);
    for (const long long inode : inodes_) stampLink(inode, time, static_cast<int>(r.nlink));
  }

  void rename(const FlrJrnRenameRaw& r, int time) {
    const long long parent = inodeOf(r.dst_par_fid);
    if (r.dst_fid_valid != 0) deleteRow(rowsOf(r.dst_fid));
    const long long inode = rowsOf(r.src_fid).inode;
    int type = 0;
    getType_.bind(inode).readFirst([&](sqlite3_stmt* row) { type = sqlite3_column_int(row, 0); });
    rename_.bind(parent, time, time, r.dst_short_name, inode).write();
    if (type == kFolder) stampBelow(inode);
  }

  void stampBelow(long long folder) {
    waiting_.assign(1, folder);
    for (const int stamp = now(); !waiting_.empty(); waiting_.pop_front()) {
      stampChildren_.bind(stamp, waiting_.front()).write();
      getFolders_.bind(waiting_.front()).read([&](sqlite3_stmt* row) {
        waiting_.push_back(sqlite3_column_int64(row, 0));
      });
    }
  }

  void setAcl(const fsf_fid& fid, int time) {
    rowsOf(fid);
    for (const long long inode : inodes_) stampChange_.bind(time, time, inode).write();
  }

  void stub(const fsf_fid& fid, int time) {
    rowsOf(fid);
    for (const long long inode : inodes_) stub_.bind(kStub, time, now(), inode).write();
  }

  void unStub(const fsf_fid& fid) {
    rowsOf(fid);
    for (const long long inode : inodes_)
      unStub_.bindAt(1, 0).bindAt(3, now()).bindAt(4, inode).write();
  }

  void stampLink(long long inode, int time, int links) {
    stampLink_.bind(links, time, time, inode).write();
  }

  void deleteRow(const Row& row) {
    deleteFile_.bind(row.inode).write();
    deleteFid_.bind(row.fidRowId).write();
  }

  std::deque<long long> waiting_;  // folders
  BareStatement getStat_{files_,
                         "SELECT MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME FROM "
                         "FILES WHERE INODE=?1"};
  BareStatement getType_{files_, "SELECT FILE_TYPE FROM FILES WHERE INODE=?1"};
  BareStatement getFolders_{files_, "SELECT INODE FROM FILES WHERE PINODE=?1 AND FILE_TYPE=1"};
  BareStatement rename_{files_,
                        "UPDATE FILES SET PINODE=?1,CTIME=?2,TIME=?3,NAME=?4 WHERE INODE=?5"};
  BareStatement stampChildren_{files_, "UPDATE FILES SET TIME=?1 WHERE PINODE=?2"};
  BareStatement stampChange_{files_, "UPDATE FILES SET CTIME=?1,TIME=?2 WHERE INODE=?3"};
  BareStatement stampLink_{files_, "UPDATE FILES SET NLINK=?1,CTIME=?2,TIME=?3 WHERE INODE=?4"};
  BareStatement stub_{files_, "UPDATE FILES SET FILE_TYPE=?1,CTIME=?2,TIME=?3 WHERE INODE=?4"};
  BareStatement unStub_{files_, "UPDATE FILES SET FILE_TYPE=?1,TIME=?3 WHERE INODE=?4"};
  BareStatement deleteFile_{files_, "DELETE FROM FILES WHERE INODE=?1"};
  BareStatement deleteFid_{fids_, "DELETE FROM FIDS WHERE FIDS_ROWID=?1"};
};

}  // namespace kddc::bench
