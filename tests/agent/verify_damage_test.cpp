// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc verify of a catalogue that anybody may have written: every value in it may be any value.
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

using testing::HasSubstr;

struct VerifyDamage : WatchTest {
  void SetUp() override {
    WatchTest::SetUp();
    if (IsSkipped()) return;
    std::filesystem::create_directory(*this / "d");
    write("d/b");
    ASSERT_EQ(::chmod((*this / "d/b").c_str(), 0600), 0);
    ASSERT_EQ(run({"scan", "-q", volume}).exitCode, 0);
  }
  void files(const std::string& sql) const {
    DatabaseView(catalogueOf(volume) + "/.db.kd").rows(sql);
  }
  // What is printed of a catalogue that differs.
  std::string verify(const std::string& form = "") const {
    const Outcome outcome =
        run(form.empty() ? Words{"verify", volume} : Words{"verify", volume, form});
    EXPECT_EQ(outcome.exitCode, 1) << outcome;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }
};

TEST_F(VerifyDamage, AModeOrTypeOfAnySizeIsADifference) {
  files("UPDATE FILES SET MODE=-1,FILE_TYPE=-1 WHERE NAME='b'");
  EXPECT_THAT(verify(), HasSubstr("d/b: mode is 37777777777 in the catalogue, 100600 on the disk\n"
                                  "d/b: type is other in the catalogue, file on the disk\n"));
  EXPECT_THAT(verify("--json"),
              HasSubstr(R"({"path":"d/b","differs":"mode","catalogue":4294967295,"disk":33152})"
                        "\n"
                        R"({"path":"d/b","differs":"type","catalogue":"other","disk":"file"})"));
  files("UPDATE FILES SET FILE_TYPE=4294967296 WHERE NAME='b'");
  EXPECT_THAT(verify(), HasSubstr("d/b: type is other in the catalogue, file on the disk\n"));
}

// Such a path means another file, or one outside of the volume, and each of the two may be as the
// row says.
TEST_F(VerifyDamage, ARowWithANameThatNoFileCanHaveIsADifference) {
  for (const std::string name : {"no/such", "d/b", "../d", "..", ".", ""}) {
    files(
        "INSERT INTO FILES SELECT 900,NULL,1,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,"
        "TIME,FILE_TYPE,'" +
        name + "' FROM FILES WHERE NAME='b'");
    const std::string said = verify();
    EXPECT_EQ(said.substr(0, said.find("1 differ")),
              "row 900 of FILES: damaged rows: '" + name + "' is a name that no file can have\n");
    files("DELETE FROM FILES WHERE INODE=900");
  }
}

}  // namespace
}  // namespace kddc::test
