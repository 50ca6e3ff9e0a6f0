// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc scan VOLUME: fills a fresh catalogue by a full scan.
#include <fmt/format.h>

#include <cstdio>
#include <ctime>

#include "agent/catalogue_place.h"
#include "agent/commands/commands.h"
#include "agent/commands/volume.h"
#include "agent/engine/full_scan.h"
#include "agent/engine/new_catalogue.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/progress.h"

namespace kddc {
namespace {

void reportScan(const Options& options, const WalkCounts& counts, double seconds) {
  if (!options.quiet) fmt::print(stderr, "{} entries in {:.1f} s\n", counts.entries, seconds);
  complainAboutLostFolders(counts, "scan");
}

// A signal ends the work in whatever it was doing then; that is no failure of its own.
template <class Work>
WalkCounts unlessInterrupted(const std::string& path, Work&& work) {
  try {
    return work();
  } catch (const Failure&) {
    if (interrupted()) throw scanInterrupted(path);
    throw;
  }
}

}  // namespace

int runScan(const Options& options, const std::string& volume) {
  const std::string path = realVolumePath(volume);
  const std::string folder = catalogueFolder(options, path);
  UniqueFd root = openVolume(path);
  noteInterrupts();

  Progress progress(!options.quiet && options.verbosity == 0);
  const std::time_t began = std::time(nullptr);
  std::uint64_t done = 0;
  NewCatalogue catalogue(folder, path);
  const WalkOptions walk = walkOptions({stateFolder(options), folder, catalogue.buildFolder()});
  const WalkCounts counts = unlessInterrupted(path, [&] {
    catalogue.rows().setTick([&] {
      progress.update(done);
      return !interrupted();
    });
    const WalkCounts walked = during("cannot scan " + path, [&] {
      return fullScan(std::move(root), path, walk, catalogue.rows(),
                      [&](std::uint64_t entries) { progress.update(done = entries); });
    });
    catalogue.publish(began);
    return walked;
  });
  reportScan(options, counts, progress.elapsed().count());
  return kExitDone;
}

}  // namespace kddc
