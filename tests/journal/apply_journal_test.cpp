// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "journal/apply_journal.h"

#include <gmock/gmock.h>

#include <cstring>

#include "tests/support/journal_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::fidOf;
using kddc::test::kFidA;
using kddc::test::kFidB;
using kddc::test::kFidC;
using kddc::test::kFidD;
using kddc::test::LogCapture;
using kddc::test::recordOf;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned long long kDevt = 7;  // of recordOf()

// Takes over every virtual operation and notes what it was given.
class Noting : public kddc::test::OpenCatalogue {
 public:
  using OpenCatalogue::OpenCatalogue;
  std::vector<std::string> calls;
  std::function<void()> onCall = [] {};

  unsigned long long Insert(StatFidName_s* entry, unsigned long long parent, int type) override {
    note("Insert " + entry->name + " " + std::to_string(parent) + " " + std::to_string(type));
    return 0;
  }
  void RemoveFolderGivenInode(unsigned long long inode, unsigned long long) override {
    note("RemoveFolderGivenInode " + std::to_string(inode));
  }
  void RemoveDuplicateFid(const fsf_fid*) override { note("RemoveDuplicateFid"); }
  void CreateLink(const FlrJrnLinkRaw& r, int time) override {
    note(std::string("CreateLink ") + r.dst_short_name + " " + std::to_string(time));
  }
  void Rename(const FlrJrnRenameRaw& r, int time) override {
    note(std::string("Rename ") + r.src_short_name + " " + std::to_string(time));
  }
  void SetAttr(const FlrJrnSetAttrRaw& r, int time) override {
    note("SetAttr " + letter(r.fid) + " " + std::to_string(time));
  }
  void SetAdditionalAttr(const fsf_fid* fid, int time) override {
    note("SetAdditionalAttr " + letter(*fid) + " " + std::to_string(time));
  }
  void Stub(const FlrJrnStubRaw& r, int time) override {
    note("Stub " + letter(r.fid) + " " + std::to_string(time));
  }
  void UnStub(const FlrJrnUnStubRaw& r, int time) override {
    note("UnStub " + letter(r.fid) + " " + std::to_string(time));
  }
  void Create(const FlrJrnCreateRaw& r) override { note(std::string("Create ") + r.short_name); }
  void Remove(const FlrJrnRemoveRaw& r, unsigned long time) override {
    note(std::string("Remove ") + r.short_name + " " + std::to_string(time));
  }

 private:
  static std::string letter(const fsf_fid& fid) {
    return std::string(1, static_cast<char>(fid.data[0]));
  }
  void note(const std::string& call) {
    calls.push_back(call);
    onCall();
  }
};

struct Journal : kddc::test::CatalogueTest {
  Noting db{folder};

  Journal() {
    JournalPerfStatMap_g.clear();
    db.CreateDb();
    EXPECT_TRUE(db.OpenHandle(false, false));
  }
  bool apply(const FlrJrnCommandRaw& r) { return ApplyJournal(&db, r); }
};

FlrJrnCommandRaw setAttr() {
  FlrJrnCommandRaw r = recordOf(FLR_JRN_SETATTR);
  r.u.setattr.fid = fidOf('A');
  return r;
}

FlrJrnCommandRaw newFile() {
  FlrJrnCommandRaw r = recordOf(FLR_JRN_CREATE);
  r.u.create.par_fid = fidOf('A');
  r.u.create.fid = fidOf('B');
  r.u.create.short_name = "new";
  return r;
}

FlrJrnCommandRaw mkDir() {
  FlrJrnCommandRaw r = recordOf(FLR_JRN_MKDIR);
  r.u.mkdir.par_fid = fidOf('A');
  r.u.mkdir.fid = fidOf('B');
  r.u.mkdir.short_name = "folder";
  return r;
}

FlrJrnCommandRaw remove() {
  FlrJrnCommandRaw r = recordOf(FLR_JRN_REMOVE);
  r.u.remove = {fidOf('A'), "gone", fidOf('B'), 0};
  return r;
}

FlrJrnCommandRaw removeDir() {
  FlrJrnCommandRaw r = recordOf(FLR_JRN_RMDIR);
  r.u.rmdir = {fidOf('B'), fidOf('A'), "dir"};
  return r;
}

FlrJrnCommandRaw link() {
  FlrJrnCommandRaw r = recordOf(FLR_JRN_LINK);
  r.u.link = {fidOf('B'), fidOf('A'), "second"};
  return r;
}

FlrJrnCommandRaw symLink() {
  FlrJrnCommandRaw r = recordOf(FLR_JRN_SYMLINK);
  r.u.symlink = {"target", fidOf('A'), "pointer", fidOf('B'), 501, 20};
  return r;
}

FlrJrnCommandRaw rename(unsigned dstFidValid) {
  FlrJrnCommandRaw r = recordOf(FLR_JRN_RENAME);
  r.u.rename = {fidOf('A'), fidOf('B'), "old", dstFidValid, fidOf('C'), fidOf('D'), "new"};
  return r;
}

// A record of a command whose payload begins with the identifier.
FlrJrnCommandRaw ofFidB(unsigned cmd) {
  FlrJrnCommandRaw r = recordOf(cmd);
  r.u.unstub.fid = fidOf('B');
  return r;
}

struct Said {
  FlrJrnCommandRaw record;
  std::string level;
  std::string text;
};

std::vector<Said> oneLineEach() {
  const std::string a = std::string("[") + kFidA + "]", b = std::string("[") + kFidB + "]";
  const std::string c = std::string("[") + kFidC + "]", d = std::string("[") + kFidD + "]";
  return {
      {setAttr(), "6", "Devt[7] FLR_JRN_SETATTR fid" + a},
      {newFile(), "4", "Devt[7] SeqNum[9] CREATE fid" + b + " name[new] par_fid" + a},
      {mkDir(), "4", "Devt[7] FLR_JRN_MKDIR name[folder]"},
      {remove(), "4", "Devt[7] SeqNum[9] REMOVE fid" + b + " name[gone] par_fid" + a},
      {removeDir(), "4", "Devt[7] FLR_JRN_RMDIR name[dir]"},
      {link(), "4", "Devt[7] FLR_JRN_LINK name[second] fid" + b + " ParentFid" + a},
      {symLink(), "4", "Devt[7] FLR_JRN_SYMLINK name[pointer]"},
      {rename(2), "4",
       "Devt[7] FLR_JRN_RENAME src_name[old] dst_name[new] src_par_fid" + b + " dst_par_fid" + d +
           " src_fid" + a + " dst_fid_valid[2] dst_fid" + c},
      {rename(0), "4",
       "Devt[7] FLR_JRN_RENAME src_name[old] dst_name[new] src_par_fid" + b + " dst_par_fid" + d +
           " src_fid" + a + " dst_fid_valid[0] dst_fid[NULL]"},
      {ofFidB(FLR_JRN_SET_ACL), "6", "Devt[7] FLR_JRN_SET_ACL fid" + b},
      {ofFidB(FLR_JRN_SETXATTR), "6", "Devt[7] FLR_JRN_SETXATTR fid" + b},
      {ofFidB(FLR_JRN_RMXATTR), "6", "Devt[7] FLR_JRN_RMXATTR fid" + b},
      {ofFidB(FLR_JRN_STUB), "4", "Devt[7] FLR_JRN_STUB fid" + b},
      {ofFidB(FLR_JRN_UNSTUB), "4", "Devt[7] FLR_JRN_UNSTUB fid" + b},
      {ofFidB(FLR_JRN_SETXATTR_AIX), "6", "Devt[7] FLR_JRN_SETXATTR_AIX fid" + b},
      {ofFidB(FLR_JRN_RMXATTR_AIX), "6", "Devt[7] FLR_JRN_RMXATTR_AIX fid" + b},
  };
}

TEST_F(Journal, EveryAppliedRecordIsSaidInOneLineAtItsLevel) {
  for (const Said& said : oneLineEach()) {
    const LogCapture log(6);
    EXPECT_TRUE(apply(said.record));
    EXPECT_THAT(log.lines(), ElementsAre("debug " + said.level + " ApplyJournal: " + said.text));
  }
}

TEST_F(Journal, ALineWhoseLevelIsOffIsNotSaid) {
  for (const Said& said : oneLineEach()) {
    const LogCapture log(std::stoi(said.level) - 1);
    EXPECT_TRUE(apply(said.record));
    EXPECT_THAT(log.lines(), IsEmpty()) << said.text;
  }
}

TEST_F(Journal, TheLineComesBeforeTheOperation) {
  const LogCapture log(4);
  bool said = false;
  db.onCall = [&] { said = log.mentions("CREATE"); };
  apply(newFile());
  EXPECT_TRUE(said);
}

TEST_F(Journal, VirtualOperationsAreCalledThroughTheObjectAndTheOthersAreTheCatalogues) {
  for (const Said& said : oneLineEach()) apply(said.record);
  EXPECT_THAT(db.calls,
              ElementsAre("SetAttr A 1000", "Create new", "Insert folder 0 1", "Remove gone 1000",
                          "CreateLink second 1000", "Insert pointer 0 7", "Rename old 1000",
                          "Rename old 1000", "SetAdditionalAttr B 1000", "SetAdditionalAttr B 1000",
                          "SetAdditionalAttr B 1000", "Stub B 1000", "UnStub B 1000",
                          "SetAdditionalAttr B 1000", "SetAdditionalAttr B 1000"))
      << "MkDir, RemoveDir and CreateSymLink are seen by their inserts alone";
}

TEST_F(Journal, TimesBeyondTheYear2038ReachRemoveWholeAndTheOthersAsTheSame32Bits) {
  FlrJrnCommandRaw late = remove();
  late.timestamp = 4000000000;
  apply(late);
  late = setAttr();
  late.timestamp = 4000000000;
  apply(late);
  EXPECT_THAT(db.calls, ElementsAre("Remove gone 4000000000", "SetAttr A -294967296"));
}

TEST_F(Journal, OtherCommandsCountAsHandledAndAreNeitherSaidNorAppliedNorCounted) {
  for (const unsigned cmd : {0U, 1U, 3U, 4U, 12U, 18U, 19U, 20U, 23U, 24U, 255U, 4294967295U}) {
    JournalPerfStatMap_g.clear();
    const LogCapture log(9);
    EXPECT_TRUE(apply(recordOf(cmd))) << cmd;
    EXPECT_THAT(log.lines(), IsEmpty()) << cmd;
    ASSERT_TRUE(JournalPerfStatMap_g.contains(kDevt)) << cmd;
    const JournalPerfStats& stats = JournalPerfStatMap_g[kDevt];
    EXPECT_EQ(stats.SetAttrCounter + stats.CreateCounter + stats.SetAdditionalAttrCounter, 0U);
  }
  EXPECT_THAT(db.calls, IsEmpty());
  db.Commit();
  EXPECT_THAT(files("*"), IsEmpty());
}

TEST_F(Journal, AnAppliedRecordIsCountedForItsVolumeWithTheTimeItTook) {
  FlrJrnCommandRaw other = newFile();
  other.devt = 8;
  apply(newFile());
  apply(newFile());
  apply(other);
  EXPECT_EQ(JournalPerfStatMap_g[7].CreateCounter, 2U);
  EXPECT_EQ(JournalPerfStatMap_g[8].CreateCounter, 1U);
  EXPECT_GT(JournalPerfStatMap_g[7].CreateTimer, 0U);
  EXPECT_LT(JournalPerfStatMap_g[7].CreateTimer, 60'000'000'000U);
}

TEST_F(Journal, AFailureOfAnyKindIsLoggedAnswersFalseAndIsNotCounted) {
  struct Case {
    std::function<void()> fail;
    std::string line;
  };
  const Case cases[] = {
      {[] { throw UDCException("Somewhere", 3, "no space", 13); },
       "error 0 ApplyJournal: eRRoR -- Function[Somewhere] Type[3] Error[13] no space"},
      {[] { throw std::runtime_error("a standard one"); },
       "error 0 ApplyJournal: eRRoR -- a standard one"},
      {[] { throw KdException("f", "the platform's", "file", 1, -1); },
       "error 0 ApplyJournal: eRRoR -- the platform's"},
      {[] { throw 42; }, "error 0 ApplyJournal: eRRoR -- UnHandled Exception "},
  };
  for (const Case& c : cases) {
    const LogCapture log(0);
    db.onCall = c.fail;
    EXPECT_FALSE(apply(newFile()));
    EXPECT_THAT(log.lines(), ElementsAre(c.line));
  }
  EXPECT_THAT(JournalPerfStatMap_g, IsEmpty());
}

TEST_F(Journal, AnOperationLogsAStandardExceptionBeforeApplyJournalDoesAndNoOther) {
  const LogCapture log(0);
  db.onCall = [] { throw std::runtime_error("full"); };
  EXPECT_FALSE(apply(mkDir()));
  db.onCall = [] { throw KdException("f", "the platform's", "file", 1, -1); };
  EXPECT_FALSE(apply(symLink()));
  EXPECT_THAT(log.lines(), ElementsAre("error 0 DCSqliteDB :: MkDir: eRRoR -- full",
                                       "error 0 ApplyJournal: eRRoR -- full",
                                       "error 0 ApplyJournal: eRRoR -- the platform's"));
}

// Where a virtual function stands in the table: how the Itanium ABI keeps a pointer to a member.
template <class Function>
std::ptrdiff_t slotOf(Function function) {
  std::ptrdiff_t offset = 0;
  std::memcpy(&offset, &function, sizeof offset);
  return (offset - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(VirtualTable, KeepsItsOrderForSubclassesBuiltElsewhere) {
#if !defined(__x86_64__)
  GTEST_SKIP() << "pointers to members look otherwise here";
#endif
  using Insert = unsigned long long (DCSqliteDB::*)(StatFidName_s*, unsigned long long, int);
  EXPECT_EQ(slotOf(static_cast<Insert>(&DCSqliteDB::Insert)), 2) << "behind two destructors";
  EXPECT_EQ(slotOf(&DCSqliteDB::RemoveFolderGivenInode), 3);
  EXPECT_EQ(slotOf(&DCSqliteDB::RemoveDuplicateFid), 4);
  EXPECT_EQ(slotOf(&DCSqliteDB::CreateLink), 5);
  EXPECT_EQ(slotOf(&DCSqliteDB::Rename), 6);
  EXPECT_EQ(slotOf(&DCSqliteDB::SetAttr), 7);
  EXPECT_EQ(slotOf(&DCSqliteDB::SetAdditionalAttr), 8);
  EXPECT_EQ(slotOf(&DCSqliteDB::Stub), 9);
  EXPECT_EQ(slotOf(&DCSqliteDB::UnStub), 10);
  EXPECT_EQ(slotOf(&DCSqliteDB::Create), 11);
  EXPECT_EQ(slotOf(&DCSqliteDB::Remove), 12);
  EXPECT_EQ(slotOf(&DCSqliteDB::CloseHandle), 13);
}

}  // namespace
