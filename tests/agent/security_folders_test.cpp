// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The folders that kddc writes in are its own: whatever somebody else has planted there, or could
// plant, is refused before anything is touched.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "agent/catalogue_place.h"
#include "agent/errors.h"
#include "agent/own_folder.h"
#include "tests/support/failure_of.h"
#include "tests/support/program.h"
#include "tests/support/record_files.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;

mode_t modeOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

struct OwnFolders : testing::Test {
  TempFolder temp;
  std::string folder = temp / "folder";

  void make(const std::string& path, mode_t mode = 0700) const {
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path;
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
  }
  static void give(const std::string& path) {
    ASSERT_EQ(lchown(path.c_str(), kNobody, kNobody), 0) << path;
  }
  // Of all three questions alike.
  static void expectRefusal(const std::string& path, const std::string& sentence) {
    for (const auto question : {requireOwnFolder, makeFolders, makeFoldersAbove})
      EXPECT_EQ(failureOf([&] { question(path); }), sentence);
  }
  static void expectGood(const std::string& path) {
    for (const auto question : {requireOwnFolder, makeFolders, makeFoldersAbove})
      EXPECT_EQ(failureOf([&] { question(path); }), "no failure");
  }
};

TEST_F(OwnFolders, AreMadeForThisUserAloneWhateverTheUmask) {
  for (const mode_t mask : {mode_t(0), mode_t(077)}) {
    const std::string top = temp / std::to_string(mask);
    const mode_t before = umask(mask);
    makeFolders(top + "/b/c");
    makeFoldersAbove(top + "/d/e");
    umask(before);
    for (const char* made : {"", "/b", "/b/c", "/d"}) EXPECT_EQ(modeOf(top + made), 0700u) << made;
    EXPECT_FALSE(fs::exists(top + "/d/e"));
  }
}

TEST_F(OwnFolders, ThatAreMissingAreNobodyElses) {
  requireOwnFolder(temp / "a/b");
  EXPECT_FALSE(fs::exists(temp / "a"));
}

TEST_F(OwnFolders, MayBeReadByOthersButNotWritten) {
  make(folder);
  for (const mode_t mode : {0700U, 0755U, 0711U, 0500U}) {
    ASSERT_EQ(chmod(folder.c_str(), mode), 0);
    expectGood(folder);
  }
  for (const mode_t mode : {0720U, 0702U, 0777U, 01777U}) {  // sticky is not enough
    ASSERT_EQ(chmod(folder.c_str(), mode), 0);
    expectRefusal(folder, "others may write in the folder " + folder +
                              "; close it with: chmod go-w " + folder);
  }
}

TEST_F(OwnFolders, AreNotOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "giving a folder away needs root";
  make(folder);
  give(folder);
  expectRefusal(folder, "the folder " + folder +
                            " belongs to another user; name another one, or take it over with: "
                            "chown 0 " +
                            folder);
}

TEST_F(OwnFolders, AreNoLinksAndNoFiles) {
  make(folder);
  const std::string link = temp / "link", file = temp.write("file", "");
  fs::create_directory_symlink(folder, link);
  const std::string sentence = "cannot use the folder " + link +
                               ": it is a link; remove it, or name the folder that it leads to";
  expectRefusal(link, sentence);
  expectRefusal(link + "/below", sentence);
  fs::remove(link);
  fs::create_directory_symlink(temp / "nowhere", link);
  expectRefusal(link, sentence);
  expectRefusal(file, "cannot use the folder " + file + ": Not a directory");
  EXPECT_FALSE(fs::exists(temp / "nowhere"));
  EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(OwnFolders, LieWhereOthersCannotReplaceThem) {
  make(folder);
  make(folder + "/own");
  for (const mode_t mode : {0770U, 0707U}) {
    ASSERT_EQ(chmod(folder.c_str(), mode), 0);
    for (const char* below : {"/own", "/missing"})
      expectRefusal(folder + below, "others may write in the folder " + folder +
                                        " and could replace what is kept below it; close it with: "
                                        "chmod go-w " +
                                        folder);
  }
  ASSERT_EQ(chmod(folder.c_str(), 01777), 0);
  expectGood(folder + "/own");
  if (geteuid() != 0) GTEST_SKIP() << "the rest needs root";
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  give(folder);
  expectRefusal(folder + "/own",
                "the folder " + folder +
                    " belongs to another user, who could replace what is kept below it; name a "
                    "folder elsewhere");
}

TEST_F(OwnFolders, AreFoundThroughLinksOfOurs) {
  make(folder);
  fs::create_directory_symlink("folder", temp / "link");
  fs::create_directory_symlink(temp / "link/..", temp / "up");
  EXPECT_EQ(settledPath(temp / "link"), folder);
  EXPECT_EQ(settledPath(temp / "link/./a//b/"), folder + "/a/b");
  EXPECT_EQ(settledPath(temp / "up/link/a/../b"), folder + "/b");
  EXPECT_EQ(settledPath("/"), "/");
  EXPECT_EQ(settledPath("/.."), "/");
  fs::create_directory_symlink("circle", temp / "circle");
  EXPECT_EQ(failureOf([&] { settledPath(temp / "circle"); }),
            "cannot use " + temp / "circle" + ": Too many levels of symbolic links");
}

TEST_F(OwnFolders, AreNotFoundThroughLinksThatOthersCanHavePlanted) {
  make(folder);
  const std::string link = temp / "link";
  fs::create_directory_symlink(folder, link);
  const std::string sentence = "cannot use " + link +
                               ": it is a link that another user can have put there; name the "
                               "folder that it leads to";
  ASSERT_EQ(chmod(temp.path().c_str(), 0777), 0);
  EXPECT_EQ(failureOf([&] { settledPath(link + "/below"); }), sentence);
  ASSERT_EQ(chmod(temp.path().c_str(), 01777), 0);
  EXPECT_EQ(settledPath(link), folder);
  if (geteuid() != 0) GTEST_SKIP() << "the rest needs root";
  give(link);
  EXPECT_EQ(failureOf([&] { settledPath(link); }), sentence);
}

// The program, on a volume with a file.
struct SecureProgram : testing::Test {
  TempFolder temp{inMemory()};
  std::string volume = temp / "volume", state = temp / "state";
  Options options;
  std::string catalogue;

  SecureProgram() {
    fs::create_directory(volume);
    temp.write("volume/file", "text");
    options.state = state;
    catalogue = defaultCatalogueFolder(options, volume);
  }
  Outcome run(Words words, const Program::Preparation& prepare = {}) const {
    words.insert(words.end(), {"--state", state});
    return Program::run(words, prepare);
  }
  void scan() const {
    const Outcome outcome = run({"scan", "-q", volume});
    ASSERT_EQ(outcome.exitCode, 0) << outcome;
  }
  static void expectRefusal(const Outcome& outcome, const std::string& sentence) {
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "\n");
    EXPECT_EQ(outcome.out, "");
  }
  // Everything that writes the catalogue.
  std::vector<Words> writers() const {
    const std::string records = temp.write("records", stream({samples::noop()}));
    return {{"scan", volume},
            {"rescan", volume},
            {"watch", volume},
            {"check", volume},
            {"replay", records, "--catalogue", catalogue}};
  }
  static std::string openTo(const std::string& folder) {
    return "others may write in the folder " + folder + "; close it with: chmod go-w " + folder;
  }
  static std::string linkAt(const std::string& folder) {
    return "cannot use the folder " + folder +
           ": it is a link; remove it, or name the folder that it leads to";
  }
};

TEST_F(SecureProgram, MakesEverythingForItsUserAloneWhateverTheUmask) {
  for (const mode_t mask : {mode_t(0), mode_t(0777)}) {
    fs::remove_all(state);
    const auto prepare = [&] { umask(mask); };
    EXPECT_EQ(run({"scan", "-q", volume}, prepare).exitCode, 0);
    EXPECT_EQ(run({"verify", "-q", volume}, prepare).exitCode, 0);
    EXPECT_EQ(run({"rescan", "-q", volume}, prepare).exitCode, 0);
    EXPECT_EQ(modeOf(state), 0700u);
    std::size_t files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(state)) {
      EXPECT_EQ(modeOf(entry.path()), entry.is_directory() ? 0700u : 0600u) << entry.path();
      files += entry.is_regular_file();
    }
    EXPECT_GE(files, 4u);
  }
}

TEST_F(SecureProgram, WritesNoCatalogueInAFolderThatOthersMayWrite) {
  scan();
  ASSERT_EQ(chmod(catalogue.c_str(), 0770), 0);
  for (const Words& words : writers()) expectRefusal(run(words), openTo(catalogue));
  EXPECT_EQ(run({"list", volume}).out, ".\nfile\n") << "whoever only reads may";
}

TEST_F(SecureProgram, WritesNoCatalogueOfAnotherUserButReadsIt) {
  if (geteuid() != 0) GTEST_SKIP() << "giving a folder away needs root";
  scan();
  ASSERT_EQ(chown(catalogue.c_str(), kNobody, kNobody), 0);
  for (const auto& entry : fs::directory_iterator(catalogue))
    ASSERT_EQ(chown(entry.path().c_str(), kNobody, kNobody), 0);
  for (const Words& words : writers())
    expectRefusal(run(words), "the folder " + catalogue +
                                  " belongs to another user; name another one, or take it over "
                                  "with: chown 0 " +
                                  catalogue);
  EXPECT_EQ(run({"list", volume}).out, ".\nfile\n");
  EXPECT_EQ(run({"changes", "-q", volume, "--since", "0"}).out, ".\nfile\n");
  EXPECT_EQ(run({"status", volume}).exitCode, 0);
  EXPECT_EQ(run({"verify", volume}).exitCode, 0);
  for (const auto& entry : fs::directory_iterator(catalogue)) {
    struct stat st {};
    ASSERT_EQ(lstat(entry.path().c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, kNobody) << entry.path() << " is left behind for its owner";
  }
}

TEST_F(SecureProgram, FollowsNoLinkInPlaceOfTheFolderOfACatalogue) {
  scan();
  const std::string moved = temp / "moved";
  fs::rename(catalogue, moved);
  fs::create_directory_symlink(moved, catalogue);
  for (const Words& words : writers()) {
    if (words[0] == "replay") continue;  // where the link is named and ours
    expectRefusal(run(words), linkAt(catalogue));
  }
  for (const char* command : {"list", "status", "verify"})
    expectRefusal(run({command, volume}), "there is no catalogue for " + volume + " in " +
                                              catalogue + "; make a new one with: kddc scan " +
                                              volume);
}

TEST_F(SecureProgram, FollowsNoLinkInPlaceOfWhatIsMadeBesideACatalogue) {
  const std::string theirs = temp / "theirs";
  fs::create_directory(theirs);
  fs::create_directories(fs::path(catalogue).parent_path());
  fs::create_directory_symlink(theirs, catalogue + ".new");
  expectRefusal(run({"scan", volume}), linkAt(catalogue + ".new"));
  EXPECT_THAT(fs::is_empty(theirs), true);
}

TEST_F(SecureProgram, WritesNoFileThatIsNotPlainAndItsOwn) {
  scan();
  const std::string database = catalogue + "/.fid.kd", kept = temp / "kept";
  const auto refusals = [&](const std::string& why) {
    for (const Words& words : writers()) expectRefusal(run(words), database + " " + why);
  };
  ASSERT_EQ(chmod(database.c_str(), 0620), 0);
  refusals("may be written by others; close it with: chmod go-w " + database);
  ASSERT_EQ(chmod(database.c_str(), 0600), 0);
  fs::create_hard_link(database, kept);
  refusals("is a file with further names; put a copy in its place");
  fs::remove(database);
  fs::create_symlink(kept, database);
  refusals("is no file but a link, or something else; remove it");
  fs::remove(database);
  ASSERT_EQ(mkfifo(database.c_str(), 0600), 0);
  refusals("is no file but a link, or something else; remove it");
  if (geteuid() != 0) return;
  fs::remove(database);
  fs::copy(kept, database);
  ASSERT_EQ(chown(database.c_str(), kNobody, kNobody), 0);
  refusals("belongs to another user; make a new catalogue in another folder");
}

TEST_F(SecureProgram, TellsOfTheOthersWhereOneCatalogueIsALink) {
  const std::string other = temp / "other";
  fs::create_directory(other);
  ASSERT_EQ(run({"scan", "-q", other}).exitCode, 0);
  scan();
  fs::rename(catalogue + "/.db.kd", temp / "kept");
  fs::create_symlink(temp / "kept", catalogue + "/.db.kd");
  const Outcome outcome = run({"status"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_THAT(outcome.out, testing::StartsWith(other + "\n"));
  EXPECT_THAT(outcome.out, testing::Not(testing::HasSubstr(volume)));
}

TEST_F(SecureProgram, UsesNoStateFolderThatOthersMayWrite) {
  scan();
  for (const char* name : {"", "/catalogues"}) {
    const std::string folder = state + name;
    ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
    for (const char* command : {"scan", "rescan", "watch"})
      EXPECT_THAT(run({command, volume}).err,
                  testing::StartsWith("kddc: others may write in the folder " + folder));
    ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
  }
}

TEST_F(SecureProgram, FollowsNoLinkInPlaceOfAFolderOfTheState) {
  const std::string theirs = temp / "theirs";
  fs::create_directory(theirs);
  const std::vector<std::pair<const char*, const char*>> used = {
      {"catalogues", "scan"}, {"queues", "watch"}, {"verify", "verify"}};
  for (const auto& [name, command] : used) {
    fs::remove_all(state);
    if (command != Words{"scan"}[0]) scan();
    fs::create_directories(state);
    fs::create_directory_symlink(theirs, state + "/" + name);
    const Outcome outcome = run({command, volume});
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_THAT(outcome.err, testing::HasSubstr(linkAt(state + "/" + name)));
    EXPECT_TRUE(fs::is_empty(theirs)) << name;
  }
}

TEST_F(SecureProgram, EditsNoRegistryThatOthersMayWrite) {
  const std::string etc = temp / "etc", registry = etc + "/DataClassification";
  fs::create_directories(registry);
  ASSERT_EQ(chmod(registry.c_str(), 0777), 0);
  const auto withRegistry = [&] { setenv("KELDARA_REGISTRY_ROOT", etc.c_str(), 1); };
  expectRefusal(run({"volumes", "refresh"}, withRegistry), openTo(registry));
  EXPECT_THAT(fs::is_empty(registry), true);
}

TEST_F(SecureProgram, StickyFoldersOfRootAreGoodEnoughToLieIn) {
  const std::string shared = temp / "shared";
  fs::create_directory(shared);
  ASSERT_EQ(chmod(shared.c_str(), 01777), 0);
  const Outcome outcome = Program::run(
      {"scan", "-q", volume, "--catalogue", shared + "/catalogue", "--state", shared + "/state"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  expectRefusal(Program::run({"watch", volume, "--state", shared}), openTo(shared));
}

TEST_F(SecureProgram, TheEnvironmentOfRootNamesNoStateFolder) {
  if (geteuid() != 0) GTEST_SKIP() << "only root's is fixed";
  const auto prepare = [&] {
    setenv("HOME", (temp / "home").c_str(), 1);
    setenv("XDG_STATE_HOME", (temp / "xdg").c_str(), 1);
    setenv("KELDARA_REGISTRY_ROOT", (temp / "etc").c_str(), 1);
  };
  EXPECT_THAT(Program::run({"list", volume}, prepare).err,
              testing::HasSubstr(" in /var/lib/kddc/"));
  EXPECT_FALSE(fs::exists(temp / "home"));
  EXPECT_FALSE(fs::exists(temp / "xdg"));
}

}  // namespace
}  // namespace kddc::test
