// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The whole comparison of a volume with its catalogue: banners, order, marks, stale rows.
#include <fcntl.h>

#include "tests/support/verified_volume.h"

namespace {

using kddc::test::LogCapture;
using kddc::test::VerifiedVolume;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kVerifyAtime[] = "/tmp/verifyatime";

struct VerifyOn : VerifiedVolume, testing::WithParamInterface<const char*> {
  void SetUp() override { begin(GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(FileSystems, VerifyOn, testing::Values("ext4", "tmpfs", "xfs"));

struct Verify : VerifiedVolume {
  void SetUp() override { begin("tmpfs"); }
};

TEST_P(VerifyOn, AVolumeThatAgreesGivesNothingButTheBanners) {
  std::filesystem::remove(path("lost+found"));
  const auto sub = folder("sub"), deep = folder("sub/deep", sub);
  const auto first = file("first"), it = file("sub/it's", sub);
  file("sub/deep/x", deep);
  link("first", "second", first);
  link("sub/it's", "sub/'quoted'", it, sub);
  link("sub/it's", "elsewhere", it);
  for (const std::string name : {"\xff\xfe", "new\nline", "%s%n%d", "\xc3\xa4", "\"", " "})
    file(name);
  ASSERT_EQ(::symlink("nowhere", path("symlink").c_str()), 0);
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  insert("symlink", 1);
  insert("fifo", 1);
  // The third link came after the rows of the other two were written.
  files("UPDATE FILES SET NLINK=3,CTIME=" + std::to_string(status("elsewhere").st_ctime) +
        " WHERE NAME IN ('it''s','''quoted''')");

  const std::string verify = "debug 1 DCSqliteDB :: Verify: ";
  EXPECT_THAT(
      VerifiedVolume::verify(),
      ElementsAre(
          verify + "\n\n\n\n\n",
          verify + "###################################  DOING VERIFY ON V  ################\n",
          verify + "\n\n\n\n\n",
          verify +
              "###################################  STALE ENTRIES IN FID DB  ################\n",
          verify + "\n\n\n\n\n",
          verify +
              "###################################  STALE ENTRIES IN FILES DB  ################\n",
          verify + "\n\n\n\n\n###################################  END OF VERIFY ON V  "
                   "################\n"));
  EXPECT_THAT(gids(), AllOf(SizeIs(17), Each("1")));
  EXPECT_THAT(rescans(), AllOf(SizeIs(17), Each("1")));
}

TEST_P(VerifyOn, RowsOfWhatWasDeletedAreListedAsStale) {
  std::filesystem::remove(path("lost+found"));
  const auto sub = folder("sub");
  file("sub/gone", sub);
  file("kept");
  std::filesystem::remove_all(path("sub"));
  EXPECT_THAT(verify(), ElementsAre("debug 1 DCSqliteDB :: Verify: \n\n\n\n\n",
                                    HasSubstr("DOING VERIFY ON V "), HasSubstr("\n\n\n\n\n"),
                                    HasSubstr("STALE ENTRIES IN FID DB"),
                                    "debug 1 StaleFilesCallBack: FILES_ROWID[2]",
                                    "debug 1 StaleFilesCallBack: FILES_ROWID[3]",
                                    HasSubstr("\n\n\n\n\n"), HasSubstr("STALE ENTRIES IN FILES DB"),
                                    "debug 1 StaleFilesCallBack: INODE[2] ANAME[sub]",
                                    "debug 1 StaleFilesCallBack: INODE[3] ANAME[gone]",
                                    HasSubstr("END OF VERIFY ON V ")));
  EXPECT_THAT(gids(), ElementsAre("1", "0", "0", "1"));
  EXPECT_THAT(rescans(), ElementsAre("1", "0", "0", "1"));
}

TEST_F(Verify, EachRunBeginsWithMarksOfItsOwn) {
  file("f");
  EXPECT_THAT(gids(), ElementsAre(testing::Ne("1"), testing::Ne("1")))
      << "root's group is 0, so nothing was marked by chance";
  fids("UPDATE FIDS SET RESCAN=1");
  files("UPDATE FILES SET GID=501");
  EXPECT_THAT(differences(), IsEmpty());
  EXPECT_THAT(differences(), IsEmpty());
}

TEST_F(Verify, TheMarksOfARunCanBeReadOnceTheCatalogueIsClosed) {
  file("f");
  verify();
  db->CloseHandle(0, false);
  EXPECT_EQ(kddc::test::DatabaseView(*temp / "catalogue/.db.kd").rows("SELECT GID FROM FILES"),
            (Lines{"1", "1"}));
  EXPECT_EQ(kddc::test::DatabaseView(*temp / "catalogue/.fid.kd").rows("SELECT RESCAN FROM FIDS"),
            (Lines{"1", "1"}));
}

TEST_F(Verify, AVolumeThatIsNotThereEndsItWithTheMarksReset) {
  file("f");
  files("UPDATE FILES SET GID=9");
  fids("UPDATE FIDS SET RESCAN=1");
  EXPECT_THAT(said([&] { db->Verify("/no such volume"); }),
              ElementsAre("debug 1 DCSqliteDB :: Verify: \n\n\n\n\n",
                          "debug 1 DCSqliteDB :: Verify: ###################################  "
                          "DOING VERIFY ON /no such volume  ################\n",
                          "error 0 DCSqliteDB :: Verify: stat failed on [/no such volume]. "
                          "Is the mount point missing?"));
  EXPECT_THAT(gids(), ElementsAre("0", "0"));
  EXPECT_THAT(rescans(), ElementsAre("0", "0"));
}

TEST_F(Verify, AFolderWithoutRowsIsReportedAndNotLookedInto) {
  const auto sub = folder("sub");
  file("sub/below", sub);
  fids("DELETE FROM FIDS WHERE FILES_ROWID=2");
  EXPECT_THAT(differences(), ElementsAre("debug 1 DCSqliteDB :: VerifyFolder: "
                                         "[V/sub] has multiple or no entries [0] in the FIDS DB",
                                         "debug 1 StaleFilesCallBack: FILES_ROWID[3]",
                                         "debug 1 StaleFilesCallBack: INODE[2] ANAME[sub]",
                                         "debug 1 StaleFilesCallBack: INODE[3] ANAME[below]"));
}

TEST_F(Verify, TheRootIsLookedIntoAlsoWhenItHasNoRows) {
  file("f");
  fids("DELETE FROM FIDS WHERE FILES_ROWID=1");
  files("DELETE FROM FILES WHERE INODE=1");
  EXPECT_THAT(differences(), ElementsAre("debug 1 DCSqliteDB :: VerifyFolder: "
                                         "[V] has multiple or no entries [0] in the FIDS DB",
                                         "debug 1 DCSqliteDB :: VerifyFile: "
                                         "[V/f] Pinode differs. DB has[1]. Current[0]"));
}

TEST_F(Verify, TheRootIsExpectedWithoutAParentAndByThePathOfTheVolume) {
  files("UPDATE FILES SET PINODE=5,NAME='volume' WHERE INODE=1");
  EXPECT_THAT(differences(), ElementsAre("debug 1 DCSqliteDB :: VerifyFolder: "
                                         "[V] Pinode differs. DB has[5]. Current[0]",
                                         "debug 1 DCSqliteDB :: VerifyFolder: "
                                         "[V] Name in DB[volume] Name on Disk[V]"));
}

TEST_F(Verify, FoldersAreLookedIntoLevelByLevel) {
  const auto a = folder("a"), b = folder("a/b", a), c = folder("a/b/c", b);
  const auto z = folder("z");
  for (const auto& [name, parent] : {std::pair{"a/1", a}, {"z/1", z}, {"a/b/2", b}, {"a/b/c/3", c}})
    file(name, parent);
  files("UPDATE FILES SET SIZE=9 WHERE NAME IN ('1','2','3')");
  const Lines found = differences();
  ASSERT_THAT(found, SizeIs(4));
  EXPECT_THAT(found[0], HasSubstr("/1] Size"));
  EXPECT_THAT(found[1], HasSubstr("/1] Size"));
  EXPECT_THAT(found[2], HasSubstr("[V/a/b/2] Size"));
  EXPECT_THAT(found[3], HasSubstr("[V/a/b/c/3] Size"));
}

TEST_F(Verify, AccessTimesAreComparedOnlyWhileSomebodyAsks) {
  file("f");
  files("UPDATE FILES SET ATIME=1");
  const timespec times[] = {{.tv_sec = 300, .tv_nsec = 0}, {.tv_sec = 0, .tv_nsec = UTIME_OMIT}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path("f").c_str(), times, 0), 0);
  files("UPDATE FILES SET CTIME=" + std::to_string(status("f").st_ctime) + " WHERE NAME='f'");
  EXPECT_THAT(differences(), IsEmpty());
  std::ofstream(kVerifyAtime) << "please";
  EXPECT_THAT(differences(), ElementsAre("debug 1 DCSqliteDB :: VerifyFile: "
                                         "[V/f] Atime differs.DB has[1]. Current[300]"));
  std::filesystem::remove(kVerifyAtime);
  EXPECT_THAT(differences(), IsEmpty());
}

TEST_F(Verify, ARowWithoutANumberEndsTheListOfStaleIdentifiersOnly) {
  file("gone");
  std::filesystem::remove(path("gone"));
  fids("INSERT INTO FIDS (FILES_ROWID,RESCAN) VALUES (NULL,0),(9,0)");
  EXPECT_THAT(differences(), ElementsAre("debug 1 StaleFilesCallBack: FILES_ROWID[2]",
                                         "error 0 StaleFilesCallBack: FILES_ROWID cannot be NULL",
                                         "debug 1 StaleFilesCallBack: INODE[2] ANAME[gone]"));
}

TEST_F(Verify, ARowWithoutANameEndsTheListOfStaleFiles) {
  files("INSERT INTO FILES (PINODE,NAME) VALUES (1,'one'),(1,NULL),(1,'three')");
  const Lines lines = verify();
  EXPECT_THAT(differences(), ElementsAre("debug 1 StaleFilesCallBack: INODE[2] ANAME[one]",
                                         "error 0 StaleFilesCallBack: INODE,NAME cannot be NULL"));
  EXPECT_THAT(lines.back(), HasSubstr("END OF VERIFY ON V"));
}

TEST_F(Verify, AnEntryThatVanishesMeanwhileEndsTheScanOfItsFolder) {
  const auto sub = folder("sub"), other = folder("other");
  for (const std::string name : {"1", "2", "3"}) write("sub/" + name);
  file("other/f", other);
  files("UPDATE FILES SET SIZE=9 WHERE NAME='f'");
  ASSERT_EQ(sub, 2U);
  // The first report is about one of three files, and at that moment all three go.
  Lines lines;
  dbg.SetLevel(1);
  EvDebug::Sink previous = dbg.SetSink([&](const EvDebug::Line& line) {
    if (line.text.find("/sub/") == std::string_view::npos && line.kind == EvDebug::Line::kDebug)
      return;
    lines.emplace_back(line.text);
    for (const std::string name : {"1", "2", "3"}) std::filesystem::remove(path("sub/" + name));
  });
  db->Verify(path(""));
  dbg.SetSink(std::move(previous));
  dbg.SetLevel(0);
  EXPECT_THAT(
      shortened(lines),
      ElementsAre(
          testing::MatchesRegex("\\[V/sub/[123]\\] has no corresponding entry in the FIDS DB"),
          testing::MatchesRegex("stat failed on \\[V/sub/[123]\\]\\. Is any I/O running\\?")));
  EXPECT_EQ(gids(), (Lines{"1", "1", "1", "1"})) << "the other folder was looked into";
}

TEST(StaleCallBacks, TellARowAndGoOn) {
  char seven[] = "7", name[] = "a\nb";
  char* row[] = {seven, name};
  const LogCapture log(1);
  EXPECT_EQ(StaleFidCallBack(nullptr, 1, row, nullptr), 0);
  EXPECT_EQ(StaleFilesCallBack(nullptr, 2, row, nullptr), 0);
  EXPECT_THAT(log.lines(), ElementsAre("debug 1 StaleFilesCallBack: FILES_ROWID[7]",
                                       "debug 1 StaleFilesCallBack: INODE[7] ANAME[a\nb]"));
}

TEST(StaleCallBacks, RefuseARowWithANull) {
  char seven[] = "7";
  char* noId[] = {nullptr, seven};
  char* noName[] = {seven, nullptr};
  const LogCapture log(1);
  EXPECT_EQ(StaleFidCallBack(nullptr, 1, noId, nullptr), -1);
  EXPECT_EQ(StaleFilesCallBack(nullptr, 2, noId, nullptr), -1);
  EXPECT_EQ(StaleFilesCallBack(nullptr, 2, noName, nullptr), -1);
  EXPECT_THAT(log.lines(), ElementsAre("error 0 StaleFilesCallBack: FILES_ROWID cannot be NULL",
                                       "error 0 StaleFilesCallBack: INODE,NAME cannot be NULL",
                                       "error 0 StaleFilesCallBack: INODE,NAME cannot be NULL"));
}

}  // namespace
