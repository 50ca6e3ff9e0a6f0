// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc rescan VOLUME: compares disk and catalogue and corrects what differs; where somebody watches
// the volume, by asking that process, because only it may write the catalogue.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "agent/catalogue_place.h"
#include "agent/commands/commands.h"
#include "agent/commands/volume.h"
#include "agent/control/client.h"
#include "agent/engine/catalogue_folder.h"
#include "agent/engine/catalogue_reader.h"
#include "agent/engine/own_catalogue.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/live/quiet_rescan.h"
#include "agent/output.h"
#include "agent/progress.h"

namespace kddc {
namespace {

// A scan may have to end first, and the volume be large.
constexpr std::chrono::hours kPatience(24);

// The reader knows the sentence for what is wrong; the library has the last word.
void requireGood(const std::string& folder, const std::string& volume) {
  const CatalogueReader sentence(folder, volume, CatalogueReader::Columns::kPath);
  FlrDriver driver;
  bool inside = false;
  fsf_fid filesFid, fidsFid;
  if (!DCSqliteDB::IsDbGood(folder, volume, &driver, inside, filesFid, fidsFid))
    throw Failure(
        fmt::format("the catalogue in {} cannot be used, -v says why; make a new one "
                    "with: kddc scan {}",
                    folder, volume));
}

constexpr char kLine[] = "added {}, changed {}, moved {}, removed {}; compared {} in {:.1f} s\n";
constexpr char kJson[] =
    R"({{"added":{},"changed":{},"moved":{},"removed":{},"compared":{},"seconds":{:.3f}}})"
    "\n";

// The same members come from a process that watches.
struct Answer {
  std::uint64_t added, changed, moved, removed, compared;
};

Answer answerFrom(const nlohmann::json& members) {
  try {
    const auto member = [&](const char* name) { return members.at(name).get<std::uint64_t>(); };
    return {member("added"), member("changed"), member("moved"), member("removed"),
            member("compared")};
  } catch (const nlohmann::json::exception&) {
    throw Failure("the process that watches gave an answer that cannot be understood");
  }
}

Answer answerFrom(const RescanCounts& counts) {
  const SettleCounts& settled = counts.settled;
  return {settled.added, settled.changed, settled.moved, settled.removed,
          counts.compared.walk.entries};
}

Answer rescanHere(const Options& options, const std::string& path, Progress& progress) {
  const std::string folder = catalogueFolder(options, path);
  requireOwnCatalogue(folder);
  refuseWhileInUse(folder);
  requireGood(folder, path);
  UniqueFd root = openVolume(path);
  const WalkOptions walk = walkOptions({stateFolder(options), folder});
  noteInterrupts();
  const CompareWishes wishes{
      .progress = [&](std::uint64_t entries) { progress.update(entries); },
      .check =
          [&] {
            if (interrupted())
              throw Failure("the rescan of " + path + " was interrupted; nothing was changed");
          }};
  const RescanCounts counts = during("cannot rescan " + path, [&] {
    return rescanQuietly(std::move(root), path, walk, folder, std::time(nullptr), wishes);
  });
  complainAboutLostFolders(counts.compared.walk, "rescan");
  return answerFrom(counts);
}

void print(const Answer& answer, double seconds, bool json) {
  printAnswer(fmt::format(fmt::runtime(json ? kJson : kLine), answer.added, answer.changed,
                          answer.moved, answer.removed, answer.compared, seconds));
}

}  // namespace

int runRescan(const Options& options, const std::string& volume, bool json) {
  const std::string path = realVolumePath(volume);
  Progress progress(!options.quiet && options.verbosity == 0);
  const auto members = ask(options, {ControlCommand::kRescan, path}, kPatience);
  const Answer answer = members ? answerFrom(*members) : rescanHere(options, path, progress);
  print(answer, progress.elapsed().count(), json);
  return kExitDone;
}

}  // namespace kddc
