// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc scan VOLUME: fills a fresh catalogue by a full scan.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "agent/catalogue_place.h"
#include "agent/commands/commands.h"
#include "agent/engine/full_scan.h"
#include "agent/engine/new_catalogue.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/progress.h"
#include "platform/stub_attribute.h"

namespace kddc {
namespace {

UniqueFd openVolume(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) throw systemFailure("cannot read the volume " + path, errno);
  return fd;
}

void leaveOut(const std::string& folder, WalkOptions& options) {
  struct stat st;
  if (stat(folder.c_str(), &st) == 0) options.leaveOut.push_back({st.st_dev, st.st_ino});
}

void reportScan(const Options& options, const WalkCounts& counts, double seconds) {
  if (!options.quiet) fmt::print(stderr, "{} entries in {:.1f} s\n", counts.entries, seconds);
  if (counts.lostFolders > 0)  // also when quiet: the answer may have a hole
    complain(
        fmt::format("{} folders moved or vanished during the scan; what they held may be "
                    "missing, scan again to be sure",
                    counts.lostFolders));
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
  WalkOptions walk;
  walk.stubAttribute = stubAttribute();
  noteInterrupts();

  Progress progress(!options.quiet && options.verbosity == 0);
  const std::time_t began = std::time(nullptr);
  std::uint64_t done = 0;
  NewCatalogue catalogue(folder, path);
  for (const std::string& own : {stateFolder(options), folder, catalogue.buildFolder()})
    leaveOut(own, walk);
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
