// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What is said on a control socket: lines and their meaning.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "agent/base64.h"
#include "agent/control/protocol.h"
#include "agent/control/volume_status.h"
#include "agent/errors.h"
#include "tests/support/failure_of.h"

namespace kddc::test {
namespace {

using nlohmann::json;

std::string refusalOf(const std::string& request) {
  return failureOf([&] { parseRequest(request); });
}

TEST(ControlRequest, NamesACommandAndAVolume) {
  EXPECT_EQ(parseRequest(R"({"version":1,"command":"flush","volume":"/data"})"),
            (ControlRequest{ControlCommand::kFlush, "/data"}));
  EXPECT_EQ(parseRequest(R"({"version":1,"command":"rescan","volume":"/gr\u00fc\u00df"})"),
            (ControlRequest{ControlCommand::kRescan, "/gr\xc3\xbc\xc3\x9f"}));
}

TEST(ControlRequest, NeedNotNameAVolumeAndMayHoldMoreThanIsKnown) {
  EXPECT_EQ(parseRequest("{\"colour\":[\"red\"],\"command\":\"status\",\"version\":1}\r"),
            (ControlRequest{ControlCommand::kStatus, ""}));
}

TEST(ControlRequest, CarriesAPathThatIsNotUtf8InBase64) {
  const ControlRequest request{ControlCommand::kFlush, "/\xff"};
  EXPECT_EQ(requestLine(request),
            "{\"command\":\"flush\",\"version\":1,\"volume_base64\":\"L/8=\"}\n");
  EXPECT_EQ(parseRequest(R"({"version":1,"command":"flush","volume_base64":"L/8="})"), request);
}

TEST(ControlRequest, IsWrittenAsOneLine) {
  EXPECT_EQ(requestLine({ControlCommand::kStatus, ""}), "{\"command\":\"status\",\"version\":1}\n");
  EXPECT_EQ(requestLine({ControlCommand::kRescan, "/a\nb"}),
            "{\"command\":\"rescan\",\"version\":1,\"volume\":\"/a\\nb\"}\n");
}

TEST(ControlRequest, ThatIsNoneIsAnsweredWithASentence) {
  const std::string noObject = "the request is no JSON object";
  EXPECT_EQ(refusalOf(""), noObject);
  EXPECT_EQ(refusalOf("flush"), noObject);
  EXPECT_EQ(refusalOf("{"), noObject);
  EXPECT_EQ(refusalOf("[1]"), noObject);
  EXPECT_EQ(refusalOf("{\"version\":1,\"command\":\"flush\"} x"), noObject);
  EXPECT_EQ(refusalOf("{\"version\":1,\"command\":\"\xff\"}"), noObject);
  EXPECT_EQ(refusalOf(std::string("\0", 1)), noObject);
}

TEST(ControlRequest, OfAnotherVersionIsRefusedWhateverElseItHolds) {
  EXPECT_EQ(refusalOf(R"({"command":"flush"})"), "the request names no version");
  EXPECT_EQ(refusalOf(R"({"version":"1","command":"flush"})"), "the request names no version");
  EXPECT_EQ(refusalOf(R"({"version":2,"command":7})"),
            "the request is of version 2; only version 1 is understood here");
}

TEST(ControlRequest, WithoutAKnownCommandIsRefused) {
  const std::string sentence =
      "the request names no command that is known; there are flush, status, rescan";
  EXPECT_EQ(refusalOf(R"({"version":1})"), sentence);
  EXPECT_EQ(refusalOf(R"({"version":1,"command":"frob"})"), sentence);
  EXPECT_EQ(refusalOf(R"({"version":1,"command":{}})"), sentence);
}

TEST(ControlRequest, WithAVolumeThatIsNoPathIsRefused) {
  const auto with = [](const std::string& members) {
    return refusalOf(R"({"version":1,"command":"flush",)" + members + "}");
  };
  EXPECT_EQ(with(R"("volume":"data")"), "the request's volume is no absolute path");
  EXPECT_EQ(with(R"("volume":7)"), "volume is no text");
  EXPECT_EQ(with(R"("volume":null)"), "volume is no text");
  EXPECT_EQ(with(R"("volume_base64":"L")"), "volume is no text");
  EXPECT_EQ(with(R"("volume_base64":7)"), "volume is no text");
  EXPECT_EQ(with(R"("volume":"/a","volume_base64":"L2E=")"), "volume is no text");
}

TEST(ControlRequest, ThatIsNestedTooDeeplyIsRefusedHoweverDeep) {
  for (const std::size_t depth : {9U, 30000U}) {
    const std::string nested = std::string(depth, '[') + std::string(depth, ']');
    EXPECT_EQ(refusalOf(R"({"version":1,"command":"flush","x":)" + nested + "}"),
              "the request is nested too deeply");
  }
}

TEST(ControlAnswer, IsGoodOrSaysWhyNot) {
  EXPECT_EQ(answerLine(json::object()), "{\"ok\":true,\"version\":1}\n");
  EXPECT_EQ(answerLine({{"rows", 7}}), "{\"ok\":true,\"rows\":7,\"version\":1}\n");
  EXPECT_EQ(refusalLine("no"), "{\"error\":\"no\",\"ok\":false,\"version\":1}\n");
  EXPECT_EQ(parseAnswer(R"({"version":1,"ok":true,"rows":7})"), json({{"rows", 7}}));
  EXPECT_EQ(failureOf([] { parseAnswer(R"({"version":1,"ok":false,"error":"no"})"); }), "no");
}

TEST(ControlAnswer, IsJsonWhateverBytesItsSentenceQuotes) {
  EXPECT_EQ(refusalLine("\xff\n"), "{\"error\":\"\xef\xbf\xbd\\n\",\"ok\":false,\"version\":1}\n");
}

TEST(ControlAnswer, ThatIsNoneIsAFailure) {
  const auto failure = [](const std::string& line) {
    return failureOf([&] { parseAnswer(line); });
  };
  EXPECT_EQ(failure("yes"), "the answer is no JSON object");
  EXPECT_EQ(failure(R"({"version":3,"ok":true})"),
            "the answer is of version 3; only version 1 is understood here");
  EXPECT_EQ(failure(R"({"version":1})"), "the answer is neither yes nor no");
  EXPECT_EQ(failure(R"({"version":1,"ok":1})"), "the answer is neither yes nor no");
  EXPECT_EQ(failure(R"({"version":1,"ok":false,"error":7})"), "the answer is neither yes nor no");
}

VolumeStatus sample() {
  VolumeStatus status;
  status.volume = "/data";
  status.catalogue = "/\xff";
  status.state = VolumeStatus::State::kStale;
  status.staleSince = 5;
  status.staleReason = "r";
  status.rows = 18446744073709551615U;
  status.lastScan = 6;
  status.process = 7;
  status.backlogRecords = 8;
  status.backlogBytes = 9;
  status.recordsPerSecond = 1.5;
  status.lastComparison = 10;
  status.overflows = 11;
  status.refusedRecords = 12;
  status.failedRecords = 13;
  status.rescanCount = 14;
  status.rescans = {{15, "s"}, {16, "t"}};
  return status;
}

constexpr char kSample[] =
    R"({"backlog_bytes":9,"backlog_records":8,"catalogue_base64":"L/8=","failed_records":13,)"
    R"("last_commit":null,"last_comparison":10,"last_scan":6,"overflows":11,"process":7,)"
    R"("records_per_second":1.5,"refused_records":12,"rescan_count":14,)"
    R"("rescans":[{"reason":"s","time":15},{"reason":"t","time":16}],"rows":18446744073709551615,)"
    R"("stale_reason":"r","stale_since":5,"state":"stale","volume":"/data"})";

TEST(VolumeStatus, TravelsAsTheseMembers) {
  EXPECT_EQ(toJson(sample()).dump(), kSample);
  EXPECT_EQ(volumeStatusFrom(json::parse(kSample)), sample());
}

TEST(VolumeStatus, KnowsFiveStates) {
  using State = VolumeStatus::State;
  EXPECT_STREQ(nameOf(State::kNotWatched), "not watched");
  EXPECT_STREQ(nameOf(State::kScanning), "scanning");
  EXPECT_STREQ(nameOf(State::kRescanning), "rescanning");
  EXPECT_STREQ(nameOf(State::kLive), "live");
  EXPECT_STREQ(nameOf(State::kStale), "stale");
}

TEST(VolumeStatus, IsRefusedWhenAMemberIsMissingOrOfAnotherType) {
  const json good = json::parse(kSample);
  for (const auto& member : good.items()) {
    json bad = good;
    bad[member.key()] = json::object({{"x", 1}});
    EXPECT_THROW(volumeStatusFrom(bad), Failure) << member.key();
    if (member.key() == "volume" || member.key() == "catalogue_base64") continue;
    bad.erase(member.key());
    EXPECT_THROW(volumeStatusFrom(bad), Failure) << member.key();
  }
  for (const char* patch :
       {R"({"rows":-1})", R"({"rows":1.5})", R"({"rows":true})",
        R"({"process":9223372036854775808})", R"({"state":"lost"})", R"({"rescans":[7]})"}) {
    json bad = good;
    bad.update(json::parse(patch));
    EXPECT_THROW(volumeStatusFrom(bad), Failure) << patch;
  }
}

TEST(Base64, ReadsOnlyWhatItWrites) {
  for (const auto& [bytes, text] : {std::pair{"", ""},
                                    {"f", "Zg=="},
                                    {"fo", "Zm8="},
                                    {"foo", "Zm9v"},
                                    {"foob", "Zm9vYg=="},
                                    {"\xfb\xff", "+/8="}}) {
    EXPECT_EQ(toBase64(bytes), text);
    EXPECT_EQ(fromBase64(text), bytes);
  }
  for (const char* text : {"Z", "Zg", "Zg=", "Zh==", "Zg==Zg==", "Zm9v====", "Zm 9v", "-_8="})
    EXPECT_EQ(fromBase64(text), std::nullopt) << text;
}

}  // namespace
}  // namespace kddc::test
