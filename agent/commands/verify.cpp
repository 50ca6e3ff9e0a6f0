// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc verify VOLUME: where catalogue and disk differ; changes neither.
#include <fmt/format.h>

#include <charconv>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "agent/catalogue_place.h"
#include "agent/commands/commands.h"
#include "agent/commands/volume.h"
#include "agent/control/client.h"
#include "agent/engine/catalogue_reader.h"
#include "agent/engine/verification.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/output.h"
#include "agent/progress.h"
#include "platform/exceptions.h"
#include "platform/printable.h"

namespace kddc {
namespace {

enum class Values { kNone, kNumbers, kModes, kTypes, kTexts, kDetail };

// How each kind is told; by its number.
struct Words {
  const char* json;
  const char* line;
  Values values;
};
constexpr Words kWords[] = {
    {"only_on_disk", "only on the disk", Values::kNone},
    {"only_in_catalogue", "only in the catalogue", Values::kNone},
    {"identifier", "the catalogue has the identifier of another file", Values::kNone},
    {"folder", "folder", Values::kTexts},
    {"name", "name", Values::kTexts},
    {"type", "type", Values::kTypes},
    {"mode", "mode", Values::kModes},
    {"uid", "uid", Values::kNumbers},
    {"gid", "gid", Values::kNumbers},
    {"nlink", "nlink", Values::kNumbers},
    {"size", "size", Values::kNumbers},
    {"atime", "atime", Values::kNumbers},
    {"mtime", "mtime", Values::kNumbers},
    {"ctime", "ctime", Values::kNumbers},
    {"rows", "damaged rows", Values::kDetail},
};

const Words& wordsOf(const Difference& difference) {
  return kWords[static_cast<std::size_t>(difference.kind)];
}

// A damaged row may hold any number of 64 bits.
std::uint64_t numberOf(const std::string& text) {
  std::uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

const char* typeOf(const std::string& text) {
  const std::uint64_t type = numberOf(text);
  return typeName(std::in_range<int>(type) ? static_cast<int>(type) : -1);
}

// A value as people read it.
std::string textOf(Values values, const std::string& value) {
  if (values == Values::kModes) return fmt::format("{:o}", numberOf(value));
  if (values == Values::kTypes) return typeOf(value);
  return printable(value);
}

// "a/b", ".", "row 7 of FIDS"
std::string nameOf(const Suspect& suspect) {
  if (suspect.kind == Suspect::Kind::kPath)
    return suspect.path.empty() ? "." : printable(suspect.path);
  const char* table = suspect.kind == Suspect::Kind::kFilesRow ? "FILES" : "FIDS";
  return fmt::format("row {} of {}", suspect.row, table);
}

std::string lineOf(const Suspect& suspect, const Difference& difference) {
  const Words& words = wordsOf(difference);
  const std::string line = nameOf(suspect) + ": " + words.line;
  if (words.values == Values::kNone) return line;
  if (words.values == Values::kDetail) return line + ": " + printable(difference.catalogue);
  return fmt::format("{} is {} in the catalogue, {} on the disk", line,
                     textOf(words.values, difference.catalogue),
                     textOf(words.values, difference.disk));
}

std::string jsonNameOf(const Suspect& suspect) {
  if (suspect.kind == Suspect::Kind::kPath)
    return jsonMember("path", suspect.path.empty() ? "." : suspect.path);
  const char* table = suspect.kind == Suspect::Kind::kFilesRow ? "files_row" : "fids_row";
  return fmt::format(R"("{}":{})", table, suspect.row);
}

std::string wordOf(Values values, const std::string& value) {
  return values == Values::kTypes ? typeOf(value) : value;
}

// By hand and not by the library, so that the members stand in this order.
std::string jsonOf(const Suspect& suspect, const Difference& difference) {
  const auto& [json, line, values] = wordsOf(difference);
  const auto& [kind, catalogue, disk] = difference;
  std::string members = fmt::format(R"({},"differs":"{}")", jsonNameOf(suspect), json);
  if (values == Values::kNumbers || values == Values::kModes)
    members += fmt::format(R"(,"catalogue":{},"disk":{})", catalogue, disk);
  if (values == Values::kTexts || values == Values::kTypes)
    members += "," + jsonMember("catalogue", wordOf(values, catalogue)) + "," +
               jsonMember("disk", wordOf(values, disk));
  if (values == Values::kDetail) members += "," + jsonMember("detail", catalogue);
  return "{" + members + "}";
}

constexpr char kSummary[] = "{} differ; compared {} in {:.1f} s\n";
constexpr char kJsonSummary[] = R"({{"differ":{},"unsettled":{},"compared":{},"seconds":{:.3f}}})"
                                "\n";

void print(const VerificationResult& result, double seconds, bool json) {
  Output output;
  const auto out = std::back_inserter(output.buffer());
  for (const auto& [suspect, differences] : result.differing) {
    for (const Difference& difference : differences)
      fmt::format_to(out, "{}\n", (json ? jsonOf : lineOf)(suspect, difference));
    output.endPiece();
  }
  if (json)
    fmt::format_to(out, kJsonSummary, result.differing.size(), result.unsettled, result.compared,
                   seconds);
  else
    fmt::format_to(out, kSummary, result.differing.size(), result.compared, seconds);
  output.flush();
}

VerificationResult verify(const VerificationPlan& plan) {
  try {
    return during("cannot verify " + plan.volume, [&] { return verifyVolume(plan); });
  } catch (const Failure&) {
    // A signal ends the work in whatever it was doing then.
    if (interrupted()) throw Failure("the verification of " + plan.volume + " was interrupted");
    throw;
  }
}

}  // namespace

int runVerify(const Options& options, const std::string& volume, bool json) {
  const std::string path = realVolumePath(volume);
  const std::string folder = catalogueFolder(options, path), state = stateFolder(options);
  // May have to wait for a scan to end; until then a signal ends the process as ever.
  flushWatched(options, path);
  {  // says what is wrong with a catalogue that cannot answer
    const CatalogueReader sentence(folder, path, CatalogueReader::Columns::kPath);
  }
  noteInterrupts();
  Progress progress(!options.quiet && options.verbosity == 0);
  const VerificationResult result = verify({.volume = path,
                                            .catalogue = folder,
                                            .copies = state + "/verify",
                                            .leftOut = walkOptions({state, folder}).leaveOut,
                                            .flush = [&] { return flushWatched(options, path); },
                                            .proceed =
                                                [&](std::uint64_t compared) {
                                                  progress.update(compared);
                                                  return !interrupted();
                                                }});
  const double seconds = progress.elapsed().count();
  progress.end();
  if (result.unsettled > 0)
    complain(fmt::format(
        "{} entries could not be compared: they kept changing, or no path leads to them",
        result.unsettled));
  try {
    print(result, seconds, json);
  } catch (const ReaderGone&) {
  }
  return result.differing.empty() ? kExitDone : kExitDifference;
}

}  // namespace kddc
