// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What ApplyJournal itself costs: every allocation of this program is counted.
#include <gtest/gtest.h>

#include "tests/support/counted_allocations.h"
#include "tests/support/journal_fixture.h"
#include "tests/support/log_capture.h"

using kddc::test::allocations;

namespace {

// Every virtual operation does nothing.
class Idle : public DCSqliteDB {
 public:
  using DCSqliteDB::DCSqliteDB;
  void CreateLink(const FlrJrnLinkRaw&, int) override {}
  void Rename(const FlrJrnRenameRaw&, int) override {}
  void SetAttr(const FlrJrnSetAttrRaw&, int) override {}
  void SetAdditionalAttr(const fsf_fid*, int) override {}
  void Stub(const FlrJrnStubRaw&, int) override {}
  void UnStub(const FlrJrnUnStubRaw&, int) override {}
  void Create(const FlrJrnCreateRaw&) override {}
  void Remove(const FlrJrnRemoveRaw&, unsigned long) override {}
};

int allocationsFor(unsigned cmd) {
  static Idle db("/nonexistent");
  FlrJrnCommandRaw record = kddc::test::recordOf(cmd);
  if (cmd == FLR_JRN_CREATE) record.u.create.short_name = "name";
  if (cmd == FLR_JRN_REMOVE) record.u.remove.short_name = "name";
  if (cmd == FLR_JRN_LINK) record.u.link.dst_short_name = "name";
  if (cmd == FLR_JRN_RENAME) record.u.rename.src_short_name = record.u.rename.dst_short_name = "n";
  EXPECT_TRUE(ApplyJournal(&db, record));  // makes the volume's entry in the statistics
  const int before = allocations;
  EXPECT_TRUE(ApplyJournal(&db, record));
  return allocations - before;
}

constexpr unsigned kSaid[] = {FLR_JRN_SETATTR, FLR_JRN_CREATE,  FLR_JRN_REMOVE,   FLR_JRN_LINK,
                              FLR_JRN_RENAME,  FLR_JRN_SET_ACL, FLR_JRN_SETXATTR, FLR_JRN_RMXATTR,
                              FLR_JRN_STUB,    FLR_JRN_UNSTUB,  FLR_JRN_WRITE};

TEST(Allocations, NothingIsBuiltForALineThatNobodyReads) {
  for (const unsigned cmd : kSaid) EXPECT_EQ(allocationsFor(cmd), 0) << cmd;
}

TEST(Allocations, AreCountedWhereALineIsRead) {
  const kddc::test::LogCapture log(6);
  EXPECT_GT(allocationsFor(FLR_JRN_CREATE), 0);
}

}  // namespace
