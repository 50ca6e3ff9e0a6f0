// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The unit file of the service, as far as that shows without starting it.
#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::Not;
using testing::StartsWith;

struct ServiceUnit : testing::Test {
  const std::string file = KDDC_SOURCE_DIR "/packaging/kddc.service";
  TempFolder folder;

  static std::string read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> lines;
    std::istringstream text(read(file));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
  }
  // What a command printed when it failed or had anything to say; empty when all is well.
  std::string complaint(const std::string& command) const {
    const std::string said = folder / "said";
    const int status = std::system((command + " >" + said + " 2>&1").c_str());
    return status == 0 ? "" : read(said) + "status " + std::to_string(status);
  }
  // The unit as if the program that was built were installed.
  std::string asInstalled() const {
    std::string text = read(file);
    const std::string command = "ExecStart=kddc ";
    const std::size_t at = text.find(command);
    if (at == std::string::npos) throw std::runtime_error("there is no " + command);
    text.replace(at, command.size(), "ExecStart=" KDDC_PROGRAM " ");
    return folder.write("kddc.service", text);
  }
  static bool lacks(const std::string& program) {
    return std::system(("command -v " + program + " >/dev/null").c_str()) != 0;
  }
};

TEST_F(ServiceUnit, IsUnderstood) {
  if (lacks("systemd-analyze")) GTEST_SKIP() << "systemd-analyze is not installed";
  EXPECT_EQ(complaint("systemd-analyze verify " + asInstalled()), "");
  EXPECT_EQ(read(folder / "said"), "");
}

TEST_F(ServiceUnit, IsExposedNoMoreThanItsWorkAsksFor) {
  if (lacks("systemd-analyze")) GTEST_SKIP() << "systemd-analyze is not installed";
  EXPECT_EQ(complaint("systemd-analyze security --no-pager --offline=true --threshold=30 " +
                      asInstalled()),
            "");
}

// What is hidden or made a mount point in the service's namespace would vanish from catalogues.
TEST_F(ServiceUnit, ShowsTheServiceEveryVolumeAsItIs) {
  for (const char* directive :
       {"ProtectSystem=", "ProtectHome=", "PrivateTmp=", "ProtectKernelModules=", "PrivateDevices=",
        "DynamicUser=", "PrivateUsers=", "InaccessiblePaths=", "TemporaryFileSystem=",
        "RootDirectory=", "MountFlags="})
    EXPECT_THAT(lines(), Each(Not(StartsWith(directive))));
  EXPECT_THAT(lines(), Contains("ReadOnlyPaths=/"));
}

TEST_F(ServiceUnit, HasTwoCapabilities) {
  for (const char* set : {"CapabilityBoundingSet", "AmbientCapabilities"})
    EXPECT_THAT(lines(), Contains(std::string(set) + "=CAP_SYS_ADMIN CAP_DAC_READ_SEARCH"));
}

}  // namespace
}  // namespace kddc::test
