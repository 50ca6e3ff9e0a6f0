// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What becomes of records on their way into a pending entry.
#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>

#include "tests/support/cumulative_fixture.h"

namespace {

using kddc::test::CatalogueTest;
using kddc::test::fidOf;
using kddc::test::LogCapture;
using kddc::test::OpenCumulative;
using testing::IsEmpty;

// The folder "top" is row 1, identifier T; the file "old" row 2, identifier O.
struct Merging : kddc::test::CumulativeTest {
  Merging() {
    insert("top", 'T', kDirectory);
    insert("old", 'O', kRegular, 1);
  }
  const Rows kUntouched = {"top|16877|4096|3000", "old|33188|4096|3000"};
  // Of rows, by the catalogue's own connections.
  int changes() {
    return sqlite3_total_changes(db.filesDb->handle) + sqlite3_total_changes(db.fidDb->handle);
  }
  Rows rowsNow() { return rows("NAME,MODE,SIZE,TIME"); }
};

TEST_F(Merging, TenEntriesAreHeldWhereNothingIsConfigured) {
  EXPECT_EQ(db.mapLimit, 10U);
}

TEST_F(Merging, ANewEntryIsEmpty) {
  const DCJrn entry;
  EXPECT_THAT(entry.inodes, IsEmpty());
  EXPECT_EQ(entry.parentInode, 0U);
  EXPECT_EQ(entry.time, 0);
  EXPECT_EQ(entry.fileType, 0);
  EXPECT_EQ(entry.name, "");
  for (const bool flag :
       {entry.created, entry.modeValid, entry.uidValid, entry.gidValid, entry.mtimeValid,
        entry.ctimeValid, entry.sizeValid, entry.blocksValid, entry.spareValid, entry.atimeValid})
    EXPECT_FALSE(flag);
  EXPECT_EQ(entry.st.st_mode + entry.st.st_nlink + entry.st.st_uid + entry.st.st_gid, 0U);
  EXPECT_EQ(entry.st.st_size + entry.st.st_blocks, 0);
  EXPECT_EQ(entry.st.st_atime + entry.st.st_mtime + entry.st.st_ctime, 0);
  EXPECT_EQ(entry.count, 0);
}

TEST_F(Merging, ASetAttrIsHeldAndNotWritten) {
  const LogCapture log(9);
  db.SetAttr(sizeOf('O', 5), kAt);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(rowsNow(), kUntouched);
  EXPECT_TRUE(pending('O').sizeValid);
  EXPECT_FALSE(pending('O').created);
  EXPECT_EQ(pending('O').st.st_size, 5);
  EXPECT_EQ(pending('O').time, 5000);
  EXPECT_EQ(pending('O').count, 1);
  EXPECT_THAT(pending('O').inodes, IsEmpty());
}

TEST_F(Merging, EveryAttributeGoesWithItsFlag) {
  FlrJrnSetAttrRaw r = attributesOf('O');
  r.mode_valid = r.uid_valid = r.gid_valid = r.atime_valid = r.mtime_valid = r.ctime_valid =
      r.size_valid = r.blocks_valid = 1;
  r.mode = 0100600;
  r.uid = 0x100000007;  // 32 bits of it count
  r.gid = 0x200000008;
  r.atime = {41, 1};
  r.mtime = {42, 2};
  r.ctime = {43, 3};
  r.size = 0x100000044;
  r.blocks = 0x100000045;
  db.SetAttr(r, kAt);
  const DCJrn& entry = pending('O');
  for (const bool flag : {entry.modeValid, entry.uidValid, entry.gidValid, entry.mtimeValid,
                          entry.ctimeValid, entry.sizeValid, entry.blocksValid, entry.atimeValid})
    EXPECT_TRUE(flag);
  EXPECT_FALSE(entry.spareValid);
  EXPECT_EQ(entry.st.st_mode, 0100600U);
  EXPECT_EQ(entry.st.st_uid, 7U);
  EXPECT_EQ(entry.st.st_gid, 8U);
  EXPECT_EQ(entry.st.st_atime, 41);
  EXPECT_EQ(entry.st.st_mtime, 42);
  EXPECT_EQ(entry.st.st_ctime, 43);
  EXPECT_EQ(entry.st.st_size, 0x100000044);
  EXPECT_EQ(entry.st.st_blocks, 0x100000045);
  EXPECT_EQ(entry.st.st_nlink, 0U);
}

TEST_F(Merging, EachFlagBringsItsOwnAttributeAlone) {
  const std::pair<unsigned char FlrJrnSetAttrRaw::*, bool DCJrn::*> kFlags[] = {
      {&FlrJrnSetAttrRaw::mode_valid, &DCJrn::modeValid},
      {&FlrJrnSetAttrRaw::uid_valid, &DCJrn::uidValid},
      {&FlrJrnSetAttrRaw::gid_valid, &DCJrn::gidValid},
      {&FlrJrnSetAttrRaw::atime_valid, &DCJrn::atimeValid},
      {&FlrJrnSetAttrRaw::mtime_valid, &DCJrn::mtimeValid},
      {&FlrJrnSetAttrRaw::ctime_valid, &DCJrn::ctimeValid},
      {&FlrJrnSetAttrRaw::size_valid, &DCJrn::sizeValid},
      {&FlrJrnSetAttrRaw::blocks_valid, &DCJrn::blocksValid}};
  char fid = 'a';
  for (const auto& [sent, valid] : kFlags) {
    FlrJrnSetAttrRaw r = attributesOf(++fid);
    r.*sent = 255;  // whatever is not 0
    db.SetAttr(r, kAt);
    for (const auto& [other, otherValid] : kFlags)
      EXPECT_EQ(pending(fid).*otherValid, valid == otherValid);
  }
}

TEST_F(Merging, LaterValuesOverwriteEarlierOnesAndFlagsStay) {
  db.SetAttr(sizeOf('O', 5), kAt);
  FlrJrnSetAttrRaw r = attributesOf('O');
  r.mode_valid = 1;
  r.mode = 0100600;
  r.size = 99;  // not meant
  db.SetAttr(r, kAt + 1);
  EXPECT_EQ(pending('O').st.st_size, 5);
  db.SetAttr(sizeOf('O', 6), kAt - 1);
  EXPECT_EQ(pending('O').st.st_size, 6);
  EXPECT_TRUE(pending('O').modeValid);
  EXPECT_EQ(pending('O').time, 4999) << "the last record's, not the latest";
  EXPECT_EQ(pending('O').count, 3);
}

TEST_F(Merging, ARecordWithoutFlagsIsCountedToo) {
  db.SetAttr(attributesOf('O'), kAt);
  EXPECT_EQ(pending('O').count, 1);
  EXPECT_FALSE(pending('O').atimeValid);
}

TEST_F(Merging, TheTimeOfARecordIsExtendedWithItsSign) {
  db.SetAttr(sizeOf('O', 5), -2);
  EXPECT_EQ(pending('O').time, -2);
}

TEST_F(Merging, AnUnknownIdentifierIsHeldAsWell) {
  db.SetAttr(sizeOf('X', 5), kAt);
  EXPECT_TRUE(isPending('X'));
}

TEST_F(Merging, ACreateIsHeldWithItsParentLookedUp) {
  const std::time_t before = std::time(nullptr);
  db.Create(file('N', "new"));
  const DCJrn& entry = pending('N');
  EXPECT_TRUE(entry.created);
  EXPECT_GE(entry.time, before);
  EXPECT_LE(entry.time, std::time(nullptr));
  EXPECT_EQ(entry.name, "new");
  EXPECT_EQ(entry.parentInode, 1U);
  EXPECT_EQ(entry.fileType, 0);
  EXPECT_EQ(entry.st.st_mode, 0100640U);
  EXPECT_EQ(entry.st.st_uid, 7U);
  EXPECT_EQ(entry.st.st_gid, 8U);
  EXPECT_EQ(entry.st.st_nlink, 1U);
  EXPECT_EQ(entry.st.st_atime, 40);
  EXPECT_EQ(entry.st.st_mtime, 50);
  EXPECT_EQ(entry.st.st_ctime, 50);
  EXPECT_EQ(entry.st.st_rdev, 0U);
  EXPECT_EQ(entry.count, 1);
  for (const bool flag :
       {entry.modeValid, entry.uidValid, entry.gidValid, entry.mtimeValid, entry.ctimeValid,
        entry.sizeValid, entry.blocksValid, entry.spareValid, entry.atimeValid})
    EXPECT_FALSE(flag);
  EXPECT_EQ(rowsNow(), kUntouched);
}

TEST_F(Merging, ACreateBelowAnUnknownParentGetsInodeZero) {
  db.Create(file('N', "new", 'X'));
  EXPECT_EQ(pending('N').parentInode, 0U);
}

TEST_F(Merging, ASetAttrOfACreatedFileLeavesItACreatedOne) {
  db.Create(file('N', "new"));
  db.SetAttr(sizeOf('N', 5), kAt);
  EXPECT_TRUE(pending('N').created);
  EXPECT_EQ(pending('N').name, "new");
  EXPECT_EQ(pending('N').st.st_size, 5);
  EXPECT_EQ(pending('N').time, 5000);
  EXPECT_EQ(pending('N').count, 2);
}

TEST_F(Merging, ACreateOfAPendingFileKeepsWhatItDoesNotBring) {
  db.SetAttr(sizeOf('N', 5), kAt);
  db.Create(file('N', "new"));
  db.Create(file('N', "newer", 'X'));
  const DCJrn& entry = pending('N');
  EXPECT_TRUE(entry.created);
  EXPECT_TRUE(entry.sizeValid);
  EXPECT_EQ(entry.st.st_size, 5);
  EXPECT_EQ(entry.name, "newer");
  EXPECT_EQ(entry.parentInode, 0U);
  EXPECT_EQ(entry.count, 3);
}

TEST_F(Merging, ARemoveDropsTheEntryOfAKnownFileWithoutAWordAndIsApplied) {
  db.SetAttr(sizeOf('O', 5), kAt);
  const LogCapture log(9);
  db.Remove(removal('O', "old"), kAt);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_FALSE(isPending('O'));
  EXPECT_EQ(rowsNow(), (Rows{"top|16877|4096|3000"}));
}

TEST_F(Merging, AFileThatIsCreatedAndRemovedNeverReachesTheCatalogue) {
  const int before = changes();
  db.Create(file('N', "new"));
  for (const unsigned size : {1U, 2U, 3U}) db.SetAttr(sizeOf('N', size), kAt);
  // The removal ends with the entry: were it applied, it would miss the name among the rows.
  db.Remove(removal('N', "new", 1), kAt);
  EXPECT_FALSE(isPending('N'));
  db.FlushAllJournals();
  EXPECT_EQ(rowsNow(), kUntouched);
  EXPECT_EQ(changes(), before);
}

TEST_F(Merging, ARemoveWithoutAnEntryIsTheBases) {
  db.Remove(removal('O', "old"), kAt);
  EXPECT_EQ(rowsNow(), (Rows{"top|16877|4096|3000"}));
}

TEST_F(Merging, AnEntryIsDroppedAlsoWhenOtherNamesOfTheFileStay) {
  insert("second", 'O', kRegular, 1);
  db.SetAttr(sizeOf('O', 5), kAt);
  db.Remove(removal('O', "old", 1), kAt);
  EXPECT_FALSE(isPending('O'));
  EXPECT_EQ(rows("NAME,SIZE,NLINK,CTIME,TIME"),
            (Rows{"top|4096|1|3000|3000", "second|4096|1|5000|5000"}));
}

TEST_F(Merging, AddingAnIdentifierKeepsTheEntryThatIsThere) {
  db.AddFidToJournalMap(fidOf('O'), true);
  EXPECT_FALSE(pending('O').created) << "the flag is not used";
  db.SetAttr(sizeOf('O', 5), kAt);
  db.AddFidToJournalMap(fidOf('O'), false);
  EXPECT_EQ(pending('O').st.st_size, 5);
}

TEST_F(Merging, RemovingAnEntryTellsWhetherItWasACreatedOne) {
  db.Create(file('N', "new"));
  db.SetAttr(sizeOf('O', 5), kAt);
  bool created = false;
  db.FindAndRemoveJournal(fidOf('N'), &created);
  EXPECT_TRUE(created);
  db.FindAndRemoveJournal(fidOf('O'), &created);
  EXPECT_FALSE(created);
  created = true;
  db.FindAndRemoveJournal(fidOf('O'), &created);
  EXPECT_TRUE(created) << "there is no entry: the answer is left alone";
  db.Create(file('N', "new"));
  db.FindAndRemoveJournal(fidOf('N'), nullptr);
  EXPECT_THAT(db.journalMap, IsEmpty());
  EXPECT_EQ(rowsNow(), kUntouched);
}

TEST_F(Merging, TheTableIsFullAtExactlyItsLimit) {
  db.mapLimit = 2;
  EXPECT_FALSE(db.IsJournalMapFull());
  db.SetAttr(sizeOf('a', 5), kAt);
  EXPECT_FALSE(db.IsJournalMapFull());
  db.SetAttr(sizeOf('b', 5), kAt);
  EXPECT_TRUE(db.IsJournalMapFull());
  db.mapLimit = 1;
  EXPECT_FALSE(db.IsJournalMapFull()) << "there are more";
}

TEST_F(Merging, EntriesAreOrderedByTheirIdentifiers) {
  fsf_fid high{}, low{};
  high.data[7] = 1;  // of the first word the byte that weighs most
  low.data[0] = 2;
  for (const fsf_fid& fid : {high, low}) db.AddFidToJournalMap(fid, false);
  EXPECT_TRUE(db.journalMap.begin()->first == low);
}

// The setting.

struct Setting : CatalogueTest {
  Setting() { ::setenv("KELDARA_REGISTRY_ROOT", temp.path().c_str(), 1); }
  ~Setting() override { ::unsetenv("KELDARA_REGISTRY_ROOT"); }
  void set(const std::string& value) const {
    temp.write("settings.ini", "[DataClassification]\nSimultaneousFileAcess = " + value + "\n");
  }
};

TEST_F(Setting, ReplacesTheLimit) {
  set("1000");
  EXPECT_EQ(OpenCumulative(folder).mapLimit, 1000U);
  set("0");
  EXPECT_EQ(OpenCumulative(folder).mapLimit, 0U);
}

TEST_F(Setting, ThatCannotBeReadIsLoggedAndThrown) {
  set("many");
  const LogCapture log(0);
  EXPECT_THROW(OpenCumulative db(folder), KdException);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(log.mentions("error 0 CumulativeJournal :: CumulativeJournal: eRRoR -- "));
  EXPECT_TRUE(log.mentions("SimultaneousFileAcess"));
}

}  // namespace
