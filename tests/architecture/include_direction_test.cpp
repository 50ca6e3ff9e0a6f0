// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The architecture as a test: the table below is the rule, and an include that breaks it fails
// here.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// What each folder may include besides itself. Read bottom up.
const std::map<std::string, std::set<std::string>> kMayInclude = {
    {"platform", {}},
    {"records", {"platform"}},
    {"buffer", {"platform"}},
    {"support", {"platform", "records"}},
    {"volumes", {"platform", "buffer"}},
    {"catalogue", {"platform", "records", "volumes"}},
    {"journal", {"platform", "records", "support", "catalogue"}},
    {"verify", {"platform", "records", "catalogue"}},
    {"driver", {"platform", "records"}},
    {"agent",
     {"platform", "records", "buffer", "support", "volumes", "catalogue", "journal", "verify",
      "driver"}},
};

struct Include {
  std::string file;  // from the root of the project
  int line;
  std::string header;
};

std::string folderOf(const std::string& path) {
  return path.substr(0, path.find('/'));
}

std::vector<Include> includesOf(const std::string& file, std::istream& text) {
  static const std::regex kInclude(R"re(^\s*#\s*include\s*"([^"]+)")re");
  std::vector<Include> includes;
  int number = 0;
  for (std::string line; std::getline(text, line);) {
    ++number;
    std::smatch match;
    if (std::regex_search(line, match, kInclude)) includes.push_back({file, number, match[1]});
  }
  return includes;
}

std::vector<std::string> violations(const std::vector<Include>& includes) {
  std::vector<std::string> found;
  for (const Include& include : includes) {
    const std::string from = folderOf(include.file), to = folderOf(include.header);
    const auto rule = kMayInclude.find(from);
    if (rule == kMayInclude.end() || from == to || rule->second.contains(to)) continue;
    std::ostringstream message;
    message << include.file << ":" << include.line << ": " << from << "/ may not include " << to
            << "/";
    found.push_back(message.str());
  }
  return found;
}

std::vector<Include> includesOfTheProject() {
  std::vector<Include> all;
  const fs::path root = KDDC_SOURCE_DIR;
  for (const auto& [folder, allowed] : kMayInclude) {
    if (!fs::exists(root / folder)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
      if (entry.path().extension() != ".h" && entry.path().extension() != ".cpp") continue;
      std::ifstream text(entry.path());
      const auto some = includesOf(fs::relative(entry.path(), root).string(), text);
      all.insert(all.end(), some.begin(), some.end());
    }
  }
  return all;
}

TEST(IncludeDirection, NoFolderIncludesOneAboveIt) {
  const std::vector<Include> includes = includesOfTheProject();
  ASSERT_GT(includes.size(), 50U) << "the sources were not found";
  EXPECT_THAT(violations(includes), testing::IsEmpty());
}

TEST(IncludeDirection, AnIncludeUpwardsIsNamedWithFileLineAndBothFolders) {
  std::istringstream text("// a comment\n#include <vector>\n#include \"catalogue/db_access.h\"\n");
  EXPECT_THAT(violations(includesOf("records/codec.cpp", text)),
              testing::ElementsAre("records/codec.cpp:3: records/ may not include catalogue/"));
}

TEST(IncludeDirection, EveryFolderOfSourcesHasARule) {
  const std::set<std::string> others = {"tests", "bench", "build", "docs", "cmake", "packaging"};
  for (const auto& entry : fs::directory_iterator(KDDC_SOURCE_DIR)) {
    const std::string name = entry.path().filename();
    if (!entry.is_directory() || name[0] == '.' || others.contains(name)) continue;
    EXPECT_TRUE(kMayInclude.contains(name)) << name << "/ has no rule";
  }
}

TEST(IncludeDirection, AnInstalledHeaderIncludesOnlyInstalledOnes) {
  std::set<std::string> installed;
  std::istringstream names(KDDC_PUBLIC_HEADERS);
  for (std::string name; std::getline(names, name, ' ');) installed.insert(name);
  ASSERT_GT(installed.size(), 10U);
  for (const Include& include : includesOfTheProject()) {
    if (!installed.contains(include.file)) continue;
    EXPECT_TRUE(installed.contains(include.header))
        << include.file << ":" << include.line << " includes " << include.header
        << ", which is not installed";
  }
}

}  // namespace
