// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc rescan VOLUME: compares disk and catalogue and corrects what differs.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdio>
#include <ctime>

#include "agent/catalogue_place.h"
#include "agent/commands/commands.h"
#include "agent/commands/volume.h"
#include "agent/engine/catalogue_folder.h"
#include "agent/engine/catalogue_reader.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/live/quiet_rescan.h"
#include "agent/output.h"
#include "agent/progress.h"

namespace kddc {
namespace {

// Where somebody keeps the catalogue current, only he can correct it. Nobody can be asked yet.
void refuseWhileWatched(const std::string& folder) {
  if (const auto user = userOf(folder))
    throw Failure(fmt::format("{} is in use by {}; stop it first", folder, *user));
}

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

void print(const RescanCounts& counts, double seconds, bool json) {
  const SettleCounts& settled = counts.settled;
  fmt::print(fmt::runtime(json ? kJson : kLine), settled.added, settled.changed, settled.moved,
             settled.removed, counts.compared.walk.entries, seconds);
}

}  // namespace

int runRescan(const Options& options, const std::string& volume, bool json) {
  const std::string path = realVolumePath(volume);
  const std::string folder = catalogueFolder(options, path);
  refuseWhileWatched(folder);
  requireGood(folder, path);
  UniqueFd root = openVolume(path);
  const WalkOptions walk = walkOptions({stateFolder(options), folder});
  noteInterrupts();

  Progress progress(!options.quiet && options.verbosity == 0);
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
  print(counts, progress.elapsed().count(), json);
  return kExitDone;
}

}  // namespace kddc
