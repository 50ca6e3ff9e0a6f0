// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Names on their way into a database.
#include "platform/text.h"

#include <gtest/gtest.h>
#include <langinfo.h>
#include <locale.h>
#include <stdlib.h>

#include <map>
#include <string>

#include "tests/support/temp_folder.h"

namespace {

// Locales that few hosts have, built once in a folder of their own.
class Locales {
 public:
  // Builds one, unless built before; empty, or why it is not to be had.
  static std::string whyNot(const std::string& charmap) {
    static Locales locales;
    return locales.build(charmap);
  }

 private:
  std::string build(const std::string& charmap) {
    if (!built_.insert({charmap, 0}).second) return built_[charmap] == 0 ? "" : kReason;
    const std::string command = "localedef -c -i en_US -f " + charmap + " " + folder_ / charmap;
    built_[charmap] = std::system((command + " >/dev/null 2>&1").c_str());
    ::setenv("LOCPATH", folder_.path().c_str(), 1);
    return built_[charmap] == 0 ? "" : kReason;
  }

  static constexpr const char* kReason = "localedef cannot build the locale here";
  kddc::test::TempFolder folder_;
  std::map<std::string, int> built_;
};

// The process's locale, for one scope.
class InLocale {
 public:
  explicit InLocale(const std::string& name) : ok_(::setlocale(LC_ALL, name.c_str()) != nullptr) {}
  ~InLocale() { ::setlocale(LC_ALL, "C"); }
  InLocale(const InLocale&) = delete;
  InLocale& operator=(const InLocale&) = delete;
  bool ok() const { return ok_; }

 private:
  bool ok_;
};

// "Gruesse" and "Strasse" as written in German, in Latin-1 and in UTF-8.
constexpr const char* kLatin1 =
    "Gr\xFC\xDF"
    "e 1";
constexpr const char* kUtf8 =
    "Gr\xC3\xBC\xC3\x9F"
    "e 1";

TEST(MbeToUtf, GivesTheBytesBackInAUtf8LocaleEvenWhereTheyAreNoUtf8) {
  const InLocale locale("C.UTF-8");
  if (!locale.ok()) GTEST_SKIP() << "no C.UTF-8 locale";
  EXPECT_EQ(mbeToUtf(kUtf8), kUtf8);
  EXPECT_EQ(mbeToUtf(kLatin1), kLatin1);
  EXPECT_EQ(mbeToUtf("\xFF\xFE\x80"), "\xFF\xFE\x80");
  EXPECT_EQ(mbeToUtf(""), "");
}

TEST(MbeToUtf, GivesTheBytesBackInTheCLocale) {
  const InLocale locale("C");
  EXPECT_EQ(mbeToUtf("plain"), "plain");
  EXPECT_EQ(mbeToUtf(kLatin1), kLatin1);
  EXPECT_EQ(mbeToUtf(kUtf8), kUtf8);
}

TEST(MbeToUtf, ConvertsFromTheLocalesEncoding) {
  if (const auto why = Locales::whyNot("ISO-8859-1"); !why.empty()) GTEST_SKIP() << why;
  const InLocale locale("ISO-8859-1");
  ASSERT_TRUE(locale.ok());
  EXPECT_EQ(mbeToUtf(kLatin1), kUtf8);
  EXPECT_EQ(mbeToUtf("\x80\xFF"), "\xC2\x80\xC3\xBF");
  EXPECT_EQ(mbeToUtf("plain"), "plain");
  EXPECT_EQ(mbeToUtf(""), "");
}

TEST(MbeToUtf, ConvertsNamesLongerThanItsBuffer) {
  if (const auto why = Locales::whyNot("ISO-8859-1"); !why.empty()) GTEST_SKIP() << why;
  const InLocale locale("ISO-8859-1");
  ASSERT_TRUE(locale.ok());
  std::string twice;
  for (int i = 0; i < 5000; ++i) twice += "\xC3\xBC";
  EXPECT_EQ(mbeToUtf(std::string(5000, '\xFC').c_str()), twice);
}

TEST(MbeToUtf, KeepsBytesThatAreNotValidInTheLocale) {
  if (const auto why = Locales::whyNot("EUC-JP"); !why.empty()) GTEST_SKIP() << why;
  const InLocale locale("EUC-JP");
  ASSERT_TRUE(locale.ok());
  EXPECT_EQ(mbeToUtf("\xC6\xFC"), "\xE6\x97\xA5");
  EXPECT_EQ(mbeToUtf("a\xFFz"), "a\xFFz");
  EXPECT_EQ(mbeToUtf("cut \xC6"), "cut \xC6");
  // What a name before left behind changes nothing for the next.
  EXPECT_EQ(mbeToUtf("\xC6\xFC"), "\xE6\x97\xA5");
}

TEST(MbeToUtf, FollowsTheLocaleWhenItChanges) {
  if (const auto why = Locales::whyNot("ISO-8859-1"); !why.empty()) GTEST_SKIP() << why;
  if (const auto why = Locales::whyNot("ISO-8859-15"); !why.empty()) GTEST_SKIP() << why;
  for (int i = 0; i < 2; ++i) {
    {
      const InLocale locale("ISO-8859-1");
      EXPECT_EQ(mbeToUtf("\xA4"), "\xC2\xA4");
    }
    const InLocale locale("ISO-8859-15");
    EXPECT_EQ(mbeToUtf("\xA4"), "\xE2\x82\xAC");
  }
}

TEST(AppendSingleQuote, DoublesEverySingleQuoteAndAddsNoneAround) {
  EXPECT_EQ(AppendSingleQuote("it's"), "it''s");
  EXPECT_EQ(AppendSingleQuote("''"), "''''");
  EXPECT_EQ(AppendSingleQuote("plain \"text\" \\ ;--"), "plain \"text\" \\ ;--");
  EXPECT_EQ(AppendSingleQuote(""), "");
  EXPECT_EQ(AppendSingleQuote(std::string("a\0'b", 4)), std::string("a\0''b", 5));
}

}  // namespace
