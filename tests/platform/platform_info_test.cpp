// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// settings.ini, rule by rule.
#include "platform/platform_info.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "platform/exceptions.h"
#include "platform/registry_folder.h"
#include "tests/support/temp_folder.h"

namespace {

class Settings : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("KELDARA_REGISTRY_ROOT", registry_.path().c_str(), 1); }
  void TearDown() override { ::unsetenv("KELDARA_REGISTRY_ROOT"); }

  void write(std::string_view text) { registry_.write("settings.ini", text); }
  std::string file() const { return registry_ / "settings.ini"; }

  static std::optional<std::string> text(const char* key, const char* section = "S") {
    std::string value = "untouched";
    if (KDPlatformInfo::getString(section, key, &value) != 0) return value;
    EXPECT_EQ(value, "untouched");
    return std::nullopt;
  }
  static std::optional<long long> number(const char* key, const char* section = "S") {
    long long value = -77;
    if (KDPlatformInfo::getNumber(section, key, &value) != 0) return value;
    EXPECT_EQ(value, -77);
    return std::nullopt;
  }
  // The message of what asking for "key" as a text throws.
  static std::string textFailure() {
    return failure([] { text("key"); });
  }
  static std::string numberFailure() {
    return failure([] { number("key"); });
  }
  template <class Ask>
  static std::string failure(Ask ask) {
    try {
      ask();
    } catch (const KdException& e) {
      return e.getMessage();
    }
    return "no exception";
  }
  // A value for "key" and its message when it is no number.
  std::string refusal(const std::string& value) {
    write("[S]\nkey = " + value + "\n");
    return numberFailure();
  }
  std::string lineFailure(int line, const std::string& text) {
    return "cannot look up \"key\" of section [S]: " + file() + ":" + std::to_string(line) + ": " +
           text;
  }

  kddc::test::TempFolder registry_;
};

const std::string kNoSetting = "is no \"key = value\", no \"[section]\" and no comment";

TEST_F(Settings, AreAbsentWithoutAFile) {
  EXPECT_EQ(text("key"), std::nullopt);
  EXPECT_EQ(number("key"), std::nullopt);
  ::setenv("KELDARA_REGISTRY_ROOT", "/nonexistent/folder", 1);
  EXPECT_EQ(text("key"), std::nullopt);
}

TEST_F(Settings, AreFoundBySectionAndKeyLetterForLetter) {
  write("before = 0\n[A]\nkey = 1\n[S]\nkey = 2\n");
  EXPECT_EQ(text("key", "S"), "2");
  EXPECT_EQ(text("key", "A"), "1");
  EXPECT_EQ(text("before", ""), "0");
  EXPECT_EQ(text("Key", "S"), std::nullopt);
  EXPECT_EQ(text("key", "s"), std::nullopt);
  EXPECT_EQ(text("before", "S"), std::nullopt);
}

TEST_F(Settings, ComeWithoutTheBlanksAroundThem) {
  write("  [S]\t\n  key  =  a b  c \t\n\tother=x\nempty =\n");
  EXPECT_EQ(text("key"), "a b  c");
  EXPECT_EQ(text("other"), "x");
  EXPECT_EQ(text("empty"), "");
}

TEST_F(Settings, MayBeAssignedAgainAndTheLastAssignmentWins) {
  write("[S]\nkey = 1\nkey = 2\n[A]\nkey = 3\n[S]\nkey = 4\n");
  EXPECT_EQ(text("key"), "4");
}

TEST_F(Settings, AreNeverContinuedByAnIndentedLine) {
  write("[S]\nkey = 1\n  other = 2\n\tthird = 3\n");
  EXPECT_EQ(text("key"), "1");
  EXPECT_EQ(text("other"), "2");
  EXPECT_EQ(text("third"), "3");
}

TEST_F(Settings, EndAtACommentOfEitherKindBehindABlank) {
  write(
      "# a\n; b\n  # c\n  ; d\n[S] # e\nhash = 1 # f\nsemi = 2 ; g\ntab = 3\t# h\nnone = # i\n"
      "both = 4 # j ; k\n");
  EXPECT_EQ(text("hash"), "1");
  EXPECT_EQ(text("semi"), "2");
  EXPECT_EQ(text("tab"), "3");
  EXPECT_EQ(text("none"), "");
  EXPECT_EQ(text("both"), "4");
}

TEST_F(Settings, KeepASignOfACommentThatStandsBehindNoBlank) {
  write("[S]\nhash = a#b\nsemi = a;b\n");
  EXPECT_EQ(text("hash"), "a#b");
  EXPECT_EQ(text("semi"), "a;b");
}

TEST_F(Settings, MayHoldEqualSignsAndColonsInTheValue) {
  write("[S]\nequal = a=b:c\ncolon : a=b\n");
  EXPECT_EQ(text("equal"), "a=b:c");
  EXPECT_EQ(text("colon"), "a=b");
}

TEST_F(Settings, AreReadWithForeignLineEndsAByteOrderMarkAndNoLastLineEnd) {
  write("\xEF\xBB\xBF[S]\r\nkey = 1\r\n\r\nother = 2");
  EXPECT_EQ(text("key"), "1");
  EXPECT_EQ(text("other"), "2");
}

TEST_F(Settings, MayHaveAnyLengthOfCommentAndBlanks) {
  write("[S]\n#" + std::string(1000, 'c') + "\n;" + std::string(1000, 'c') + "\n" +
        std::string(1000, ' ') + "key = 1" + std::string(1000, ' ') + "# " +
        std::string(1000, 'c') + "\n");
  EXPECT_EQ(text("key"), "1");
}

TEST_F(Settings, AreReadAfreshByEveryCall) {
  write("[S]\nkey = 1\n");
  EXPECT_EQ(text("key"), "1");
  write("[S]\nkey = 2\n");
  EXPECT_EQ(text("key"), "2");
  std::filesystem::remove(file());
  EXPECT_EQ(text("key"), std::nullopt);
}

TEST_F(Settings, MayFillALineOf199BytesAndNoMore) {
  const std::string longest(199 - 4, 'v');
  write("[S]\nkey=" + longest + "\n");
  EXPECT_EQ(text("key"), longest);
  write("[S]\nok = 1\nkey=" + longest + "v\n");
  EXPECT_EQ(textFailure(), lineFailure(3, "\"key=" + std::string(56, 'v') +
                                              "\"... is too long (199 bytes at most)"));
}

TEST_F(Settings, MayStandInASectionOf49BytesAndNoMore) {
  const std::string longest(49, 's');
  write("[" + longest + "]\nkey = 1\n");
  EXPECT_EQ(text("key", longest.c_str()), "1");
  write("[S]\nkey = 1\n[" + longest + "s]\nkey = 2\n");
  EXPECT_EQ(textFailure(),
            lineFailure(3, "\"[" + longest +
                               "s]\" has a section name that is too long (49 bytes at most)"));
}

TEST_F(Settings, AreRefusedWithTheFirstLineThatCannotBeParsed) {
  write("[S]\nkey = 1\n\nnonsense\nmore nonsense\n");
  EXPECT_EQ(textFailure(), lineFailure(4, "\"nonsense\" " + kNoSetting));
  write("[S\nkey = 1\n");
  EXPECT_EQ(textFailure(), lineFailure(1, "\"[S\" " + kNoSetting));
  write("[S]\n= 1\n");
  EXPECT_EQ(textFailure(), lineFailure(2, "\"= 1\" " + kNoSetting));
  write(std::string_view("[S]\nkey = 1\0 2\n", 15));
  EXPECT_EQ(textFailure(), lineFailure(2, "\"key = 1? 2\" holds a NUL byte"));
}

TEST_F(Settings, AreRefusedWithAByteOrderMarkBehindTheFilesBeginning) {
  const std::string why = "\xEF\xBB\xBF[S]\" begins with a byte order mark in mid-file";
  write("  \xEF\xBB\xBF[S]\nkey = 1\n");
  EXPECT_EQ(textFailure(), lineFailure(1, "\"" + why));
  write("\xEF\xBB\xBF\xEF\xBB\xBF[S]\nkey = 1\n");
  EXPECT_EQ(textFailure(), lineFailure(1, "\"" + why));
  write("[S]\nkey = 1\n\xEF\xBB\xBF[S]\nkey = 2\n");
  EXPECT_EQ(textFailure(), lineFailure(3, "\"" + why));
}

TEST_F(Settings, AreRefusedWhenTheFileCannotBeRead) {
  const std::string start = "cannot look up \"key\" of section [S]: " + file();
  std::filesystem::create_directory(file());
  EXPECT_EQ(textFailure(), start + " cannot be read: Is a directory");
  std::filesystem::remove(file());
  ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0);
  EXPECT_EQ(textFailure(), start + " cannot be read: Invalid argument");
  std::filesystem::remove(file());
  std::filesystem::create_symlink("settings.ini", file());
  EXPECT_EQ(textFailure(), start + " cannot be read: Too many levels of symbolic links");
}

TEST_F(Settings, AreRefusedWhenTheFileMayNotBeRead) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  write("[S]\nkey = 1\n");
  ASSERT_EQ(::chmod(registry_.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(file().c_str(), 0600), 0);
  ASSERT_EQ(::seteuid(65534), 0);
  const std::string message = textFailure();
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_EQ(message, "cannot look up \"key\" of section [S]: " + file() +
                         " cannot be read: Permission denied");
}

TEST_F(Settings, AreRefusedWhenOthersCanChangeTheFile) {
  write("[S]\nkey = 1\n");
  for (const mode_t mode : {0620U, 0602U, 0666U}) {
    ASSERT_EQ(::chmod(file().c_str(), mode), 0);
    EXPECT_EQ(textFailure(), "cannot look up \"key\" of section [S]: " + file() +
                                 " can be changed by others; close it with: chmod go-w " + file());
  }
  ASSERT_EQ(::chmod(file().c_str(), 0644), 0);
  EXPECT_EQ(text("key"), "1");
}

TEST_F(Settings, AreRefusedWhenTheFileIsAnothersButNotWhenItIsRoots) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  write("[S]\nkey = 1\n");
  ASSERT_EQ(::chmod(registry_.path().c_str(), 0755), 0);
  ASSERT_EQ(::seteuid(65534), 0);
  EXPECT_EQ(text("key"), "1");
  ASSERT_EQ(::seteuid(0), 0);
  ASSERT_EQ(::chown(file().c_str(), 65534, 65534), 0);
  EXPECT_EQ(textFailure(),
            "cannot look up \"key\" of section [S]: " + file() +
                " belongs to another user, who could change it; take it over with: chown 0 " +
                file());
  ASSERT_EQ(::seteuid(65534), 0);
  EXPECT_EQ(text("key"), "1");
  ASSERT_EQ(::seteuid(0), 0);
}

TEST_F(Settings, AreNumbersWhenTheyAreWholeDecimalNumbersOfSixtyFourBits) {
  write(
      "[S]\na = 0\nb = -12\nc = +12\nd = 9223372036854775807\ne = -9223372036854775808\n"
      "f = 007\n");
  EXPECT_EQ(number("a"), 0);
  EXPECT_EQ(number("b"), -12);
  EXPECT_EQ(number("c"), 12);
  EXPECT_EQ(number("d"), std::numeric_limits<long long>::max());
  EXPECT_EQ(number("e"), std::numeric_limits<long long>::min());
  EXPECT_EQ(number("f"), 7);
  EXPECT_EQ(number("g"), std::nullopt);
}

TEST_F(Settings, AreRefusedAsNumbersWithFileLineKeyAndValue) {
  for (const std::string value : {"many", "1.5", "0x10", "10 MiB", "", "+", "-", "+-1", "--1",
                                  "9223372036854775808", "-9223372036854775809", "1e3"})
    EXPECT_EQ(refusal(value), file() +
                                  ":2: \"key\" of section [S] must be a whole number that fits "
                                  "into 64 bits, not \"" +
                                  value + "\"");
  EXPECT_EQ(text("key"), "1e3");
}

TEST_F(Settings, TakeADefaultWhereTheFileDoesNotSetThem) {
  KDPlatformInfo::setDefault("S", "withDefault", "5");
  EXPECT_EQ(number("withDefault"), 5);
  EXPECT_EQ(text("withDefault"), "5");
  EXPECT_EQ(text("withDefault", "A"), std::nullopt);
  KDPlatformInfo::setDefault("S", "withDefault", "6");
  EXPECT_EQ(number("withDefault"), 6);
  write("[S]\nwithDefault = 7\n");
  EXPECT_EQ(number("withDefault"), 7);
  write("[S]\nwithDefault =\n");
  EXPECT_EQ(text("withDefault"), "");
}

TEST_F(Settings, CheckADefaultLikeAnyValue) {
  KDPlatformInfo::setDefault("S", "badDefault", "many");
  EXPECT_EQ(failure([] { number("badDefault"); }),
            "the default: \"badDefault\" of section [S] must be a whole number that fits into 64 "
            "bits, not \"many\"");
}

TEST(RegistryFolder, IsFixedUnlessTheEnvironmentNamesAnother) {
  ::unsetenv("KELDARA_REGISTRY_ROOT");
  EXPECT_EQ(kddc::registryFolder(), "/etc/KeldaraRegistry");
  ::setenv("KELDARA_REGISTRY_ROOT", "", 1);
  EXPECT_EQ(kddc::registryFolder(), "/etc/KeldaraRegistry");
  ::setenv("KELDARA_REGISTRY_ROOT", "/elsewhere", 1);
  EXPECT_EQ(kddc::registryFolder(), "/elsewhere");
  ::unsetenv("KELDARA_REGISTRY_ROOT");
}

TEST(InstallationFolder, IsFixedUnlessTheEnvironmentNamesAnother) {
  ::unsetenv("ZENTHAR_DIRECTORY");
  EXPECT_EQ(KDPI_Base::getZentharDirectory(), "/opt/zenthar");
  ::setenv("ZENTHAR_DIRECTORY", "/elsewhere", 1);
  EXPECT_EQ(KDPI_Base::getZentharDirectory(), "/elsewhere");
  ::unsetenv("ZENTHAR_DIRECTORY");
}

// The part of the next test that runs in a set-user-id process; 3 says that it is none.
TEST(SetUserId, DISABLED_Child) {
  if (::getauxval(AT_SECURE) == 0) ::_exit(3);
  const bool fixed = kddc::registryFolder() == "/etc/KeldaraRegistry" &&
                     KDPI_Base::getZentharDirectory() == "/opt/zenthar";
  ::_exit(fixed ? 0 : 1);
}

TEST(SetUserId, MakesAProcessIgnoreTheEnvironment) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to make a set-user-id program";
  const kddc::test::TempFolder folder;
  const std::string program = folder / "test";
  std::filesystem::copy_file("/proc/self/exe", program);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  ASSERT_EQ(::chown(program.c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(program.c_str(), 04755), 0);
  const std::string command = "KELDARA_REGISTRY_ROOT=/elsewhere ZENTHAR_DIRECTORY=/elsewhere " +
                              program +
                              " --gtest_also_run_disabled_tests"
                              " --gtest_filter=SetUserId.DISABLED_Child >/dev/null";
  const int status = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 3) GTEST_SKIP() << "set-user-id has no effect on this file system";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
