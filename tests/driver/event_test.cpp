// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Events as bytes, written out by hand, on a little-endian host.
#include "driver/event.h"

#include <gtest/gtest.h>
#include <sys/fanotify.h>

#include <bit>

#include "records/fsf_fid.h"
#include "tests/support/bytes.h"

static_assert(std::endian::native == std::endian::little);

namespace kddc::test {
namespace {

constexpr char kCreate[] = R"(
    5c000000 03 00 1800 0001000000000000 ffffffff d2040000  ; 92 bytes, CREATE, no fd, pid 1234
    02 00 2000 1122334455667788                             ; DFID_NAME, 32 bytes, file system
    08000000 01000000 0200000000000000                      ; handle: 8 bytes, type 1
    6162 0000                                               ; "ab", NUL, padding
    01 00 2400 1122334455667788                             ; FID, 36 bytes
    0c000000 81000000 a1a2a3a4a5a6a7a8a9aaabac 00000000     ; handle: 12 bytes, type 0x81, padding
)";
constexpr char kRename[] = R"(
    74000000 03 00 1800 0000005000000000 ffffffff 01000000  ; 116 bytes, RENAME|ONDIR, pid 1
    0a 00 2000 1122334455667788                             ; OLD_DFID_NAME
    08000000 01000000 0200000000000000 61000000             ; "a"
    0c 00 2000 1122334455667788                             ; NEW_DFID_NAME
    08000000 01000000 0300000000000000 62630000             ; "bc"
    01 00 1c00 1122334455667788                             ; FID
    08000000 01000000 0400000000000000
)";
constexpr char kOverflow[] = "18000000 03 00 1800 0040000000000000 ffffffff 00000000";
constexpr char kError[] = R"(
    38000000 03 00 1800 0080000000000000 ffffffff 00000000  ; 56 bytes, FS_ERROR
    05 00 0c00 75000000 01000000                            ; ERROR: 117, once
    01 00 1400 1122334455667788 00000000 ff000000           ; FID: no bytes, type 255
)";

struct Parsed {
  bool understood;
  std::vector<Event> events;
};
Parsed parse(const Bytes& raw) {
  // On the heap and exactly as long, so that AddressSanitizer sees a read beyond it.
  Parsed parsed;
  parsed.understood = parseEvents(raw, parsed.events);
  return parsed;
}
Event one(const std::string& text) {
  const Parsed parsed = parse(bytes(text));
  EXPECT_TRUE(parsed.understood);
  EXPECT_EQ(parsed.events.size(), 1u);
  return parsed.events.empty() ? Event() : parsed.events[0];
}
std::string textOf(const fsf_fid& fid) {
  return fid2str(fid);
}

TEST(Event, OfANameTellsFolderNameAndFile) {
  const Event event = one(kCreate);
  EXPECT_EQ(event.mask, FAN_CREATE);
  EXPECT_EQ(event.pid, 1234);
  EXPECT_TRUE(event.hasName);
  EXPECT_EQ(textOf(event.folder), "010800000200000000000000000000000000000000000000");
  EXPECT_EQ(event.name, "ab");
  EXPECT_FALSE(event.hasNewName);
  EXPECT_TRUE(event.hasObject);
  EXPECT_EQ(textOf(event.object), "810c0000a1a2a3a4a5a6a7a8a9aaabac0000000000000000");
}

TEST(Event, OfARenameTellsBothNamesAndTheFile) {
  const Event event = one(kRename);
  EXPECT_EQ(event.mask, FAN_RENAME | FAN_ONDIR);
  EXPECT_EQ(event.name, "a");
  EXPECT_EQ(textOf(event.folder), "010800000200000000000000000000000000000000000000");
  EXPECT_TRUE(event.hasNewName);
  EXPECT_EQ(event.newName, "bc");
  EXPECT_EQ(textOf(event.newFolder), "010800000300000000000000000000000000000000000000");
  EXPECT_EQ(textOf(event.object), "010800000400000000000000000000000000000000000000");
}

TEST(Event, OfAFolderItselfHasTheFolderAsItsFileAndNoName) {
  const Event event = one(R"(
      38000000 03 00 1800 0400004000000000 ffffffff 01000000  ; 56 bytes, ATTRIB|ONDIR
      02 00 2000 1122334455667788 08000000 01000000 0500000000000000 2e000000
  )");
  EXPECT_EQ(event.mask, FAN_ATTRIB | FAN_ONDIR);
  EXPECT_FALSE(event.hasName);
  EXPECT_EQ(event.name, "");
  EXPECT_TRUE(event.hasObject);
  EXPECT_EQ(textOf(event.object), "010800000500000000000000000000000000000000000000");
}

TEST(Event, OfAFileAloneHasNoName) {
  const Event event = one(R"(
      34000000 03 00 1800 0404000000000000 ffffffff 01000000  ; 52 bytes, ATTRIB|DELETE_SELF
      01 00 1c00 1122334455667788 08000000 01000000 0500000000000000
  )");
  EXPECT_FALSE(event.hasName);
  EXPECT_TRUE(event.hasObject);
}

TEST(Event, OfAnOverflowTellsNothingElse) {
  const Event event = one(kOverflow);
  EXPECT_EQ(event.mask, FAN_Q_OVERFLOW);
  EXPECT_FALSE(event.hasName || event.hasNewName || event.hasObject);
}

TEST(Event, OfAFileSystemErrorTellsTheErrorAndMayHaveNoFile) {
  const Event event = one(kError);
  EXPECT_EQ(event.mask, FAN_FS_ERROR);
  EXPECT_EQ(event.error, 117);
  EXPECT_FALSE(event.hasObject);
}

TEST(Event, NamesMayHoldAnyByteAndBe255Long) {
  std::string name;
  for (int i = 0; i < 255; ++i) name += static_cast<char>(i + 1);
  Bytes raw = bytes(R"(
      34010000 03 00 1800 0001000000000000 ffffffff 01000000
      02 00 1c01 1122334455667788 08000000 01000000 0200000000000000
  )");
  raw.insert(raw.end(), name.begin(), name.end());
  raw.push_back(0);
  const Parsed parsed = parse(raw);
  ASSERT_TRUE(parsed.understood);
  EXPECT_EQ(parsed.events.at(0).name, name);
}

TEST(Event, SeveralFollowEachOther) {
  const Parsed parsed = parse(bytes(std::string(kCreate) + kOverflow + kRename));
  EXPECT_TRUE(parsed.understood);
  ASSERT_EQ(parsed.events.size(), 3u);
  EXPECT_EQ(parsed.events[0].mask, FAN_CREATE);
  EXPECT_EQ(parsed.events[1].mask, FAN_Q_OVERFLOW);
  EXPECT_EQ(parsed.events[2].mask, FAN_RENAME | FAN_ONDIR);
}

TEST(Event, InfoOfAnUnknownTypeIsSkipped) {
  const Event event = one(R"(
      3c000000 03 00 1800 0200000000000000 ffffffff 01000000
      63 00 0800 ffffffff                                     ; type 99
      01 00 1c00 1122334455667788 08000000 01000000 0500000000000000
  )");
  EXPECT_EQ(textOf(event.object), "010800000500000000000000000000000000000000000000");
}

TEST(Event, NoBytesAreNoEvents) {
  const Parsed parsed = parse({});
  EXPECT_TRUE(parsed.understood);
  EXPECT_TRUE(parsed.events.empty());
}

TEST(Event, CutAtAnyLengthIsNoticedAndLeftOut) {
  for (const char* text : {kCreate, kRename, kOverflow, kError}) {
    const Bytes whole = bytes(text);
    for (std::size_t n = 1; n < whole.size(); ++n) {
      const Parsed parsed = parse({whole.begin(), whole.begin() + static_cast<long>(n)});
      EXPECT_FALSE(parsed.understood) << n << " of " << text;
      EXPECT_TRUE(parsed.events.empty()) << n << " of " << text;
    }
  }
}

// The event's own length is put right, so that only what it holds is cut.
TEST(Event, CutInsideAtAnyLengthIsNeverReadBeyond) {
  for (const char* text : {kCreate, kRename, kError}) {
    const Bytes whole = bytes(text);
    for (std::size_t n = 25; n < whole.size(); ++n) {
      Bytes cut(whole.begin(), whole.begin() + static_cast<long>(n));
      cut[0] = static_cast<unsigned char>(n);
      const Parsed parsed = parse(cut);
      EXPECT_EQ(parsed.understood, parsed.events.size() == 1) << n << " of " << text;
    }
  }
}

struct Hostile {
  const char* what;
  const char* text;
};
// Each is followed by an overflow, which must still be seen where the event's length holds.
const Hostile kHostile[] = {
    {"another version", "18000000 02 00 1800 0001000000000000 ffffffff 00000000"},
    {"a head shorter than it is", "18000000 03 00 1700 0001000000000000 ffffffff 00000000"},
    {"a head longer than the event", "18000000 03 00 1900 0001000000000000 ffffffff 00000000"},
    {"an info record of no length",
     "1c000000 03 00 1800 0001000000000000 ffffffff 00000000 01 00 0000"},
    {"an info record beyond the event",
     "1c000000 03 00 1800 0001000000000000 ffffffff 00000000 01 00 0800"},
    {"a handle of 21 bytes",
     "44000000 03 00 1800 0001000000000000 ffffffff 00000000"
     "01 00 2c00 1122334455667788 15000000 01000000"
     "0000000000000000000000000000000000000000 00000000"},
    {"a handle longer than its record",
     "34000000 03 00 1800 0001000000000000 ffffffff 00000000"
     "01 00 1c00 1122334455667788 09000000 01000000 0500000000000000"},
    {"a handle of 4 GiB",
     "34000000 03 00 1800 0001000000000000 ffffffff 00000000"
     "01 00 1c00 1122334455667788 ffffffff 01000000 0500000000000000"},
    {"a handle type above a byte",
     "34000000 03 00 1800 0001000000000000 ffffffff 00000000"
     "01 00 1c00 1122334455667788 08000000 00010000 0500000000000000"},
    {"a negative handle type",
     "34000000 03 00 1800 0001000000000000 ffffffff 00000000"
     "01 00 1c00 1122334455667788 08000000 ffffffff 0500000000000000"},
    {"a name without an end",
     "38000000 03 00 1800 0001000000000000 ffffffff 00000000"
     "02 00 2000 1122334455667788 08000000 01000000 0200000000000000 61626364"},
    {"an empty name",
     "38000000 03 00 1800 0001000000000000 ffffffff 00000000"
     "02 00 2000 1122334455667788 08000000 01000000 0200000000000000 00000000"},
    {"a name without room",
     "34000000 03 00 1800 0001000000000000 ffffffff 00000000"
     "02 00 1c00 1122334455667788 08000000 01000000 0200000000000000"},
    {"a name in no folder",
     "30000000 03 00 1800 0001000000000000 ffffffff 00000000"
     "02 00 1800 1122334455667788 00000000 01000000 61000000"},
};

TEST(Event, WithALengthThatLiesIsLeftOutAndTheNextOnesAreRead) {
  for (const Hostile& hostile : kHostile) {
    const Parsed parsed = parse(bytes(std::string(hostile.text) + kOverflow));
    EXPECT_FALSE(parsed.understood) << hostile.what;
    ASSERT_EQ(parsed.events.size(), 1u) << hostile.what;
    EXPECT_EQ(parsed.events[0].mask, FAN_Q_OVERFLOW) << hostile.what;
  }
}

TEST(Event, WhoseOwnLengthLiesEndsTheReading) {
  for (const char* length : {"00000000", "17000000", "31000000", "ffffffff"}) {
    const Parsed parsed = parse(
        bytes(length + std::string(" 03 00 1800 0001000000000000 ffffffff 00000000") + kOverflow));
    EXPECT_FALSE(parsed.understood) << length;
    EXPECT_TRUE(parsed.events.empty()) << length;
  }
}

}  // namespace
}  // namespace kddc::test
