// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc watch with nothing but the two capabilities that it needs, as the service has them.
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

constexpr char kNobodyAsText[] = "65534";
constexpr uid_t kNobodysNumber = 65534;

struct WatchRights : WatchTest, testing::WithParamInterface<const char*> {
  WatchRights() : WatchTest(GetParam()) {}

  void SetUp() override {
    if (std::system("command -v setpriv >/dev/null") != 0)
      GTEST_SKIP() << "setpriv is not installed";
    WatchTest::SetUp();
    if (IsSkipped()) return;
    fs::create_directory(state);
    ASSERT_EQ(chown(state.c_str(), kNobodysNumber, kNobodysNumber), 0);
    // Where the program was built, others may have no business.
    fs::copy_file(KDDC_PROGRAM, temp / "kddc");
    fs::permissions(temp.path(), fs::perms(0755));
  }
  std::unique_ptr<Program> watchAsNobody() const { return watchAsNobody(volume.c_str()); }
  // Of the volumes that are registered when none is named.
  std::unique_ptr<Program> watchAsNobody(const char* path) const {
    const std::string both = "-all,+sys_admin,+dac_read_search";
    const std::string inherited = "--inh-caps=" + both, ambient = "--ambient-caps=" + both,
                      bounding = "--bounding-set=" + both, program = temp / "kddc";
    return watch({volume}, [&] {
      execlp("setpriv", "setpriv", "--reuid", kNobodyAsText, "--regid", kNobodyAsText,
             "--clear-groups", "--no-new-privs", inherited.c_str(), ambient.c_str(),
             bounding.c_str(), program.c_str(), "watch", "--state", state.c_str(), path, nullptr);
      _exit(126);
    });
  }
  // "name: value" of a process.
  static std::string rightOf(const Program& program, const std::string& name) {
    std::ifstream lines("/proc/" + std::to_string(program.pid()) + "/status");
    for (std::string line; std::getline(lines, line);)
      if (line.starts_with(name + ":\t")) return line.substr(name.size() + 2);
    return "";
  }
  // That nobody but root may look at.
  void makePrivate(const std::string& folder) const {
    fs::create_directory(*this / folder);
    fs::permissions(*this / folder, fs::perms(0700));
    write(folder + "/file", "text");
    fs::permissions(*this / (folder + "/file"), fs::perms(0600));
  }
};
INSTANTIATE_TEST_SUITE_P(On, WatchRights, testing::Values("ext4", "tmpfs"),
                         [](const auto& type) { return type.param; });

TEST_P(WatchRights, TwoCapabilitiesAreEnoughToFollowWhatOthersMayNotSee) {
  fs::permissions(volume, fs::perms(0700));
  makePrivate("old");
  const auto program = watchAsNobody();
  EXPECT_EQ(rightOf(*program, "Uid"), "65534\t65534\t65534\t65534");
  for (const char* set : {"CapEff", "CapPrm", "CapBnd", "CapAmb"})
    EXPECT_EQ(rightOf(*program, set), "0000000000200004") << set;
  EXPECT_EQ(rightOf(*program, "NoNewPrivs"), "1");

  makePrivate("new");
  fs::rename(*this / "old/file", *this / "new/moved");
  fs::create_symlink("new/moved", *this / "link");
  fs::create_hard_link(*this / "new/moved", *this / "old/second");
  write("old/second", "a longer text");
  ASSERT_EQ(mkfifo((*this / "new/fifo").c_str(), 0600), 0);
  ASSERT_EQ(chown((*this / "new/file").c_str(), 1, 2), 0);
  fs::rename(*this / "new", *this / "old/new");
  flush();
  EXPECT_EQ(listed(), onDisk(volume));
  stop(*program);
  EXPECT_EQ(program->err(), "");

  // What it has written is its own, and good for the next start.
  for (const auto& entry : fs::recursive_directory_iterator(state)) {
    struct stat st;
    ASSERT_EQ(lstat(entry.path().c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, kNobodysNumber) << entry.path();
    EXPECT_EQ(st.st_mode & 077U, 0U) << entry.path();
  }
  fs::remove(*this / "link");
  const auto next = watchAsNobody();
  EXPECT_EQ(status()["rescans"][0]["reason"], "it was not watched for a while");
  EXPECT_EQ(listed(), onDisk(volume));
}

TEST_P(WatchRights, TheRegistryOfRootIsRead) {
  const std::string registry = temp / "registry";
  fs::create_directory(registry);
  fs::permissions(registry, fs::perms(0700));
  setenv("KELDARA_REGISTRY_ROOT", registry.c_str(), 1);
  EXPECT_EQ(run({"volumes", "add", volume}).exitCode, 0);
  EXPECT_EQ(run({"volumes", "refresh"}).exitCode, 0);
  EXPECT_THAT(run({"volumes", "list"}).out, testing::HasSubstr(volume));  // leaves an empty log
  const auto program = watchAsNobody(nullptr);
  write("file");
  flush();
  EXPECT_EQ(listed(), onDisk(volume));
  unsetenv("KELDARA_REGISTRY_ROOT");
}

}  // namespace
}  // namespace kddc::test
