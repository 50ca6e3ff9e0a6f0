// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What holds for any record. Records are made by one more visitor of their layout, and compared by
// a text that knows nothing of it.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <deque>
#include <string>

#include "records/record_layout.h"
#include "tests/support/bytes.h"
#include "tests/support/record_text.h"

using kddc::As;
using kddc::test::Bytes;
using kddc::test::recordText;

namespace {

// A record and what its pointers point at.
struct OwnedRecord {
  FlrJrnCommandRaw record{};
  std::deque<std::string> owned;
};

template <class Integer>
Integer anyUpTo(unsigned long long greatest) {
  const auto value = *rc::gen::scale(1000, rc::gen::arbitrary<unsigned long long>());
  return static_cast<Integer>(value & greatest);
}

// Gives every field a value that survives the way there and back.
struct Filler {
  std::deque<std::string>& owned;

  void fid(const char*, fsf_fid& fid) {
    for (unsigned char& b : fid.data) b = anyUpTo<unsigned char>(0xff);
  }
  template <class Integer>
  void byte(const char*, Integer& value) {
    value = anyUpTo<Integer>(0xff);
  }
  void u32(const char*, unsigned int& value, As = As::kDecimal) {
    value = anyUpTo<unsigned int>(0xffffffff);
  }
  void u64(const char*, unsigned long long& value, As = As::kDecimal) {
    value = anyUpTo<unsigned long long>(~0ULL);
  }
  void time(const char*, FlrJrnTime& time) {
    time = {anyUpTo<long long>(0xffffffff), anyUpTo<long long>(0xffffffff)};
  }
  void text(const char*, const char*& s) {
    s = owned.emplace_back(*rc::gen::container<std::string>(rc::gen::nonZero<char>())).c_str();
  }
  void block(const char*, const unsigned char*& data, unsigned int& count, As) {
    const std::string& bytes = owned.emplace_back(*rc::gen::arbitrary<std::string>());
    data = reinterpret_cast<const unsigned char*>(bytes.data());
    count = static_cast<unsigned int>(bytes.size());
  }
  void none(unsigned char&) {}
};

OwnedRecord anyRecord() {
  OwnedRecord r;
  // At full size from the first case on: otherwise the low commands come much more often.
  const auto anyCode = rc::gen::resize(rc::kNominalSize, rc::gen::inRange(0u, 24u));
  r.record.cmd = *rc::gen::suchThat(anyCode, [](unsigned int code) { return code != 3; });
  r.record.timestamp = anyUpTo<unsigned int>(0xffffffff);
  r.record.seq_num = anyUpTo<unsigned long long>(~0ULL);
  r.record.devt = anyUpTo<unsigned long long>(~0ULL);
  r.record.mask = anyUpTo<unsigned int>(0xffff);
  Filler filler{r.owned};
  kddc::visitPayload(filler, r.record);
  return r;
}

// In a buffer of the size that the codec asks for, so that AddressSanitizer sees when it was wrong.
Bytes encoded(const FlrJrnCommandRaw& record) {
  Bytes wire(getRawCmdSize(&record));
  RC_ASSERT(encodeRawCmd(&record, wire.data()) == 0);
  return wire;
}

// Checks a property for some hundred records.
void holds(const char* what, void (*property)()) {
  EXPECT_TRUE(rc::check(what, [property] {
    for (int i = 0; i < 8; ++i) property();
  }));
}

TEST(AnyRecord, SurvivesTheWayThereAndBack) {
  holds("decode after encode is the record", [] {
    const OwnedRecord r = anyRecord();
    const Bytes wire = encoded(r.record);
    FlrJrnCommandRaw back;
    RC_ASSERT(decodeRawCmd(wire.data(), &back) == 0);
    RC_ASSERT(recordText(back) == recordText(r.record));
  });
}

TEST(AnyRecord, EncodesToItsSizeWhichItsHeaderTells) {
  holds("size agrees", [] {
    const OwnedRecord r = anyRecord();
    const unsigned int size = getRawCmdSize(&r.record);
    Bytes wire(size + 64, 0xee);
    RC_ASSERT(encodeRawCmd(&r.record, wire.data()) == 0);
    FlrJrnHdrRaw header;
    decodeRawHdr(wire.data(), &header);
    RC_ASSERT(header.length == size);
    RC_ASSERT(Bytes(wire.begin() + size, wire.end()) == Bytes(64, 0xee));
  });
}

TEST(AnyRecord, EncodesToAWellFormedOneAndNoPrefixOfItIsOne) {
  holds("encode makes well-formed bytes", [] {
    const OwnedRecord r = anyRecord();
    const Bytes wire = encoded(r.record);
    RC_ASSERT(kddc::isWellFormedRecord(wire.data(), wire.size()));
    const auto n = *rc::gen::inRange<std::size_t>(0, wire.size());
    const Bytes prefix(wire.begin(), wire.begin() + static_cast<std::ptrdiff_t>(n));
    RC_ASSERT(!kddc::isWellFormedRecord(prefix.data(), prefix.size()));
  });
}

TEST(AnyWellFormedBytes, AreWhatTheirDecodedRecordEncodesTo) {
  holds("encode after decode is the bytes", [] {
    Bytes wire = encoded(anyRecord().record);
    const auto at = *rc::gen::inRange<std::size_t>(0, wire.size());
    wire[at] = *rc::gen::arbitrary<unsigned char>();  // may hit a name, a count, the command
    if (!kddc::isWellFormedRecord(wire.data(), wire.size())) return;
    FlrJrnCommandRaw record;
    RC_ASSERT(decodeRawCmd(wire.data(), &record) == 0);
    const Bytes again = encoded(record);
    RC_ASSERT(Bytes(wire.begin(), wire.begin() + static_cast<std::ptrdiff_t>(again.size())) ==
              again);
    RC_ASSERT(again.size() == wire.size());
  });
}

TEST(AnyRecord, TouchesOnlyTheBytesOfItsOwnRecordInAStream) {
  holds("a stream of two is cut by its headers", [] {
    const OwnedRecord first = anyRecord(), second = anyRecord();
    Bytes stream = encoded(first.record);
    const std::size_t cut = stream.size();
    const Bytes next = encoded(second.record);
    stream.insert(stream.end(), next.begin(), next.end());
    RC_ASSERT(kddc::isWellFormedRecord(stream.data(), stream.size()));
    FlrJrnCommandRaw record;
    RC_ASSERT(decodeRawCmd(stream.data() + cut, &record) == 0);
    RC_ASSERT(recordText(record) == recordText(second.record));
  });
}

}  // namespace
