// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Records of how a file is, settled: attributes, link counts, stubs.
//
// A record that says what the rows say changes nothing, so their TIME stays. A change that does
// move it moves it to the time of the record, but never back, and never behind the opening of the
// catalogue: whoever asked for changes up to then did not hear of it.
#pragma once

#include <map>

#include "agent/live/settling.h"
#include "driver/record_mask.h"

namespace kddc {

class SettleAttributes {
 public:
  explicit SettleAttributes(Settling& work) : work_(work), rows_(work.rows) {}

  // SETATTR.
  void attributes(const FlrJrnCommandRaw& record);
  // STUB and UNSTUB.
  void stub(const FlrJrnCommandRaw& record);

  // A link count stands in every row of a file and may change with each of its names; so it is held
  // back. So is, for files with several names, whether they are stubs, which is told as often.
  void noteLinks(const fsf_fid& fid, RecordMask mask, unsigned time);
  void noteLinks(const fsf_fid& fid, unsigned links, unsigned time);
  void writeHeldBack();
  // A file that nobody knows begins anew, also when its identifier was another one's.
  void forgetHeldBack(const fsf_fid& fid);

  // The file was brought in by a listing, and the next record will tell how it is.
  void noteListed(const fsf_fid& fid) { justListed_ = fid; }
  // Rows that were written with a time: a change that is older than our watch is news all the same.
  void stampAsNew(const fsf_fid& fid, unsigned time);

 private:
  struct Links {
    unsigned count, time;
  };
  struct StubState {
    bool isStub;
    unsigned time;
    unsigned long long number;  // of the record
  };

  void compare(const FlrJrnCommandRaw& record);
  bool readRow(const FlrJrnSetAttrRaw& seen, RecordMask mask, struct stat& st,
               unsigned long& stamp);
  void updateBlocks(const FlrJrnSetAttrRaw& seen);
  bool changesLinks(const fsf_fid& fid, nlink_t stored, RecordMask mask) const;
  void changeTimeAlone(const FlrJrnCommandRaw& record, struct stat& st, unsigned long stamp);
  void stampListed(const fsf_fid& fid);
  void writeLinks(const fsf_fid& fid, const Links& links);
  void writeStub(const fsf_fid& fid, const StubState& state);
  void noteHeldBack();

  Settling& work_;
  LiveCatalogue& rows_;
  // To be written.
  std::map<fsf_fid, Links> links_;
  std::map<fsf_fid, StubState> stubs_;
  fsf_fid justListed_{};
};

}  // namespace kddc
