// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The status as it travels over the socket. What comes in is taken from nobody's word: every number
// is held to the range of its member. Paths, which need not be UTF-8, go as bytes.
#include "agent/control/volume_status.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <concepts>
#include <nlohmann/json.hpp>
#include <utility>

#include "agent/control/protocol.h"
#include "agent/errors.h"

namespace kddc {
namespace {

using nlohmann::json;
using State = VolumeStatus::State;

// By state.
constexpr std::array kStates = {"not watched", "scanning", "rescanning", "live", "stale"};

// Every member once, for both directions.
template <class Visitor, class Status>
void visit(Visitor& v, Status& s) {
  v.bytes("volume", s.volume);
  v.bytes("catalogue", s.catalogue);
  v.state("state", s.state);
  v.time("stale_since", s.staleSince);
  v.value("stale_reason", s.staleReason);
  v.value("rows", s.rows);
  v.time("last_scan", s.lastScan);
  v.value("process", s.process);
  v.value("backlog_records", s.backlogRecords);
  v.value("backlog_bytes", s.backlogBytes);
  v.rate("records_per_second", s.recordsPerSecond);
  v.time("last_commit", s.lastCommit);
  v.time("last_comparison", s.lastComparison);
  v.value("overflows", s.overflows);
  v.value("refused_records", s.refusedRecords);
  v.value("failed_records", s.failedRecords);
  v.value("rescan_count", s.rescanCount);
  v.rescans("rescans", s.rescans);
}

struct Writer {
  json object = json::object();

  void bytes(const char* name, const std::string& value) { putBytes(object, name, value); }
  void state(const char* name, State value) { object[name] = nameOf(value); }
  void time(const char* name, const std::optional<std::int64_t>& value) {
    object[name] = value ? json(*value) : json();
  }
  // JSON has no infinity.
  void rate(const char* name, double value) { object[name] = std::isfinite(value) ? value : 0.0; }
  template <class Value>
  void value(const char* name, const Value& value) {
    object[name] = value;
  }
  void rescans(const char* name, const std::vector<VolumeStatus::Rescan>& values) {
    json& list = object[name] = json::array();
    for (const auto& rescan : values)
      list.push_back({{"time", rescan.time}, {"reason", rescan.reason}});
  }
};

// A number that the type holds; the library would bend any other into it.
template <std::integral Number>
Number wholeNumber(const json& member) {
  if (member.is_number_unsigned()) {
    if (const auto number = member.get<std::uint64_t>(); std::in_range<Number>(number))
      return static_cast<Number>(number);
  } else if (member.is_number_integer()) {
    if (const auto number = member.get<std::int64_t>(); std::in_range<Number>(number))
      return static_cast<Number>(number);
  }
  throw Failure("a number is not whole, or out of its range");
}

// Fails with the library's exceptions where a member is missing or of another type.
struct Reader {
  const json& object;

  void bytes(const char* name, std::string& value) { value = getBytes(object, name); }
  void state(const char* name, State& value) {
    const auto found = std::ranges::find(kStates, object.at(name).get<std::string>());
    if (found == kStates.end()) throw Failure("the state is unknown");
    value = static_cast<State>(found - kStates.begin());
  }
  void rate(const char* name, double& value) {
    if (!object.at(name).is_number()) throw Failure("a rate is no number");
    object.at(name).get_to(value);
  }
  void time(const char* name, std::optional<std::int64_t>& value) {
    const json& member = object.at(name);
    value.reset();
    if (!member.is_null()) value = wholeNumber<std::int64_t>(member);
  }
  template <class Value>
  void value(const char* name, Value& value) {
    if constexpr (std::integral<Value>)
      value = wholeNumber<Value>(object.at(name));
    else
      object.at(name).get_to(value);
  }
  void rescans(const char* name, std::vector<VolumeStatus::Rescan>& values) {
    for (const json& rescan : object.at(name))
      values.push_back({wholeNumber<std::int64_t>(rescan.at("time")), rescan.at("reason")});
  }
};

}  // namespace

const char* nameOf(State state) {
  return kStates.at(static_cast<std::size_t>(state));
}

std::string summaryOf(const std::vector<State>& states) {
  using enum VolumeStatus::State;
  std::string summary;
  for (const State state : {kLive, kScanning, kRescanning, kStale, kNotWatched})
    if (const auto count = std::ranges::count(states, state); count > 0)
      summary += fmt::format("{} {} {}", summary.empty() ? "volumes:" : ",", count, nameOf(state));
  return summary.empty() ? "volumes: none; see: kddc volumes --help" : summary;
}

json toJson(const VolumeStatus& status) {
  Writer writer;
  visit(writer, status);
  return std::move(writer.object);
}

VolumeStatus volumeStatusFrom(const json& object) {
  try {
    VolumeStatus status;
    Reader reader{object};
    visit(reader, status);
    return status;
  } catch (const std::exception& e) {
    throw Failure(std::string("the status cannot be understood: ") + e.what());
  }
}

}  // namespace kddc
