// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc watch [VOLUME...]: keeps catalogues current until it is told to stop.
#include <fmt/format.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "agent/catalogue_place.h"
#include "agent/commands/commands.h"
#include "agent/control/server.h"
#include "agent/control/volume_status.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/live/watch_session.h"
#include "agent/logging.h"
#include "agent/progress.h"
#include "agent/registry/registered_volumes.h"
#include "platform/stub_attribute.h"

namespace kddc {
namespace {

constexpr int kLookMilliseconds = 100;

const char* wordFor(CatalogueChange::Kind kind) {
  switch (kind) {
    case CatalogueChange::Kind::kAdded:
      return "added";
    case CatalogueChange::Kind::kChanged:
      return "changed";
    case CatalogueChange::Kind::kMoved:
      return "moved";
    default:
      return "removed";
  }
}

// Those that are mounted. Of a registry that is empty, or missing, none.
std::vector<std::string> registeredPlaces(const Options& options) {
  const auto mounts = mountsByPlace();
  std::vector<std::string> places;
  for (const RegisteredVolume& volume : registeredVolumes())
    if (mounts.contains(volume.mountPoint))
      places.push_back(volume.mountPoint);
    else if (!options.quiet)
      complain(volume.mountPoint + " is not mounted and so not watched");
  if (places.empty())
    throw Failure("no volume is registered and mounted; name one, or see: kddc volumes --help");
  if (places.size() > 1 && !options.catalogue.empty())
    throw Failure("--catalogue names the catalogue of one volume only; several are registered");
  return places;
}

WatchPlan planFor(const Options& options, const std::vector<std::string>& volumes) {
  WatchPlan plan;
  plan.stateFolder = stateFolder(options);
  plan.stubAttribute = stubAttribute();
  const auto own = [&](const std::string& path) {
    return plan.stateFolder + "/queues/" + placeName(path);
  };
  for (const std::string& volume : volumes) {
    const std::string path = realVolumePath(volume);
    const bool known = std::ranges::find(plan.volumes, path, &WatchPlan::Volume::path) !=
                       plan.volumes.end();  // named twice
    if (!known) plan.volumes.push_back({path, catalogueFolder(options, path), own(path) + ".lock"});
  }
  plan.queueFolder = own(plan.volumes.front().path);
  plan.numbersFile = plan.queueFolder + ".numbers";
  return plan;
}

std::vector<ControlPlace> placesFor(const Options& options, const WatchPlan& plan) {
  std::vector<ControlPlace> places;
  for (const WatchPlan::Volume& volume : plan.volumes)
    places.push_back({volume.path, controlSocket(options, volume.path)});
  return places;
}

nlohmann::json toJson(const RescanCounts& counts) {
  return {{"added", counts.settled.added},
          {"changed", counts.settled.changed},
          {"moved", counts.settled.moved},
          {"removed", counts.settled.removed},
          {"compared", counts.compared.walk.entries}};
}

nlohmann::json answer(WatchSession& session, const ControlRequest& request,
                      const ControlServer::Gone& gone) {
  switch (request.command) {
    case ControlCommand::kStatus:
      return toJson(session.status(request.volume));
    case ControlCommand::kFlush:
      if (session.flush(request.volume, gone)) return nlohmann::json::object();
      break;
    case ControlCommand::kRescan:
      if (const auto counts = session.rescan(request.volume, gone)) return toJson(*counts);
      break;
  }
  throw Failure("the process that watches " + request.volume + " is stopping");
}

std::string pathOnDisk(const std::string& volume, const std::string& path) {
  if (path == ".") return volume;
  return volume == "/" ? volume + path : volume + "/" + path;
}

// Lines on standard output, from any thread. Whoever does not read them holds us up, but not beyond
// the moment from which on `giveUp` holds. When they cannot be written any more `failed` is called,
// once.
class Lines {
 public:
  Lines(std::function<bool()> giveUp, std::function<void()> failed)
      : giveUp_(std::move(giveUp)), failed_(std::move(failed)) {}

  void say(std::string line) {
    line += '\n';
    const std::lock_guard lock(mutex_);
    for (std::string_view rest = line; !rest.empty() && error_ == 0;) {
      if (!awaitReader()) return;
      // What poll says there is room for.
      const ssize_t written =
          write(STDOUT_FILENO, rest.data(), std::min<std::size_t>(rest.size(), PIPE_BUF));
      if (written >= 0)
        rest.remove_prefix(static_cast<std::size_t>(written));
      else if (errno != EINTR && errno != EAGAIN)
        fail(errno);
    }
  }
  // Whoever closed a pipe has had enough of them, which is no failure.
  void requireWritten() const {
    if (error_ != 0 && error_ != EPIPE) throw systemFailure("cannot write what changes", error_);
  }

 private:
  bool awaitReader() const {
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    while (poll(&out, 1, kLookMilliseconds) <= 0)
      if (giveUp_()) return false;
    return true;
  }
  void fail(int error) {
    error_ = error;
    failed_();
  }

  std::function<bool()> giveUp_;
  std::function<void()> failed_;
  std::mutex mutex_;
  int error_ = 0;
};

WatchListeners listenersFor(const Options& options, Progress& progress) {
  WatchListeners listeners;
  listeners.note = [quiet = options.quiet](const std::string& line) {
    if (!quiet) complain(line);
  };
  listeners.progress = [&](std::uint64_t entries) { progress.update(entries); };
  return listeners;
}

}  // namespace

int runWatch(const Options& options, const std::vector<std::string>& volumes, bool print) {
  const WatchPlan plan = planFor(options, volumes.empty() ? registeredPlaces(options) : volumes);
  std::unique_ptr<WatchSession> session;
  std::atomic<int> signals = 0;
  Lines lines([&] { return signals > 1; }, [&] { session->stop(); });
  Progress progress(!options.quiet && options.verbosity == 0);
  WatchListeners listeners = listenersFor(options, progress);
  if (print)
    listeners.change = [&](const std::string& volume, CatalogueChange::Kind kind,
                           const std::string& path) {
      const std::string name = plan.volumes.size() == 1 ? path : pathOnDisk(volume, path);
      lines.say(fmt::format("{} {}", wordFor(kind), printable(name)));
    };
  session = std::make_unique<WatchSession>(plan, std::move(listeners));
  const InterruptThread interrupts([&] {
    session->stop();
    ++signals;
  });
  const ControlServer server(placesFor(options, plan),
                             [&](const ControlRequest& request, const ControlServer::Gone& gone) {
                               return answer(*session, request, gone);
                             });
  session->run([&] {
    progress.end();
    lines.say("ready");
  });
  lines.requireWritten();
  return kExitDone;
}

}  // namespace kddc
