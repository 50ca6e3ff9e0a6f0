// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc watch [VOLUME...]: keeps catalogues current until it is told to stop.
#include <fmt/format.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>

#include "agent/catalogue_place.h"
#include "agent/commands/commands.h"
#include "agent/commands/volumes_refresh.h"
#include "agent/control/server.h"
#include "agent/control/volume_status.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/live/watch_session.h"
#include "agent/progress.h"
#include "agent/registry/registered_volumes.h"
#include "agent/service/service_manager.h"
#include "agent/service/service_report.h"
#include "platform/platform_info.h"
#include "platform/printable.h"
#include "platform/stub_attribute.h"

namespace kddc {
namespace {

// How often a line that nobody reads asks whether to give up.
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

std::string queuesFolder(const Options& options) {
  return stateFolder(options) + "/queues/";
}

// A queue without a bound costs the kernel's memory; one with a bound, comparisons.
EventQueue eventQueue() {
  long long limit = 0;
  KDPlatformInfo::getNumber("DataClassification", "LimitEventQueue", &limit);
  return limit == 0 ? EventQueue::kUnlimited : EventQueue::kLimited;
}

// The lock lies beside the queues and not in the catalogue: it is taken before that is looked at.
WatchPlan::Volume planOf(const Options& options, const std::string& path) {
  return {path, catalogueFolder(options, path), queuesFolder(options) + placeName(path) + ".lock"};
}

WatchPlan basePlan(const Options& options, const std::string& queue) {
  WatchPlan plan;
  plan.stateFolder = stateFolder(options);
  plan.stubAttribute = stubAttribute();
  plan.events = eventQueue();
  plan.queueFolder = queuesFolder(options) + queue;
  plan.numbersFile = plan.queueFolder + ".numbers";
  return plan;
}

// The queue is named after the first volume, which a later start finds again when it names the
// volumes in the same order.
WatchPlan planForNamed(const Options& options, const std::vector<std::string>& volumes) {
  WatchPlan plan = basePlan(options, placeName(realVolumePath(volumes.front())));
  for (const std::string& volume : volumes) {
    const std::string path = realVolumePath(volume);
    const auto named = std::ranges::find(plan.volumes, path, &WatchPlan::Volume::path);
    if (named == plan.volumes.end()) plan.volumes.push_back(planOf(options, path));
  }
  return plan;
}

// When the mount table has changed the registry is brought in step with it first, by whoever may:
// another disk may have come. What cannot be done then is told, and what is registered is followed
// all the same.
std::vector<WatchPlan::Volume> registeredPlans(const Options& options, bool mountsChanged) {
  if (mountsChanged && mayEditRegistry()) {
    try {
      refreshRegistry(options);
    } catch (const Failure& e) {
      complain(e.what());
    }
  }
  const RegistryMode mode = registryMode();
  const std::set<std::string> listed = listedNames(mode);
  std::vector<WatchPlan::Volume> plans;
  for (const RegisteredVolume& volume : registeredVolumes())
    if (listed.contains(volume.mountPoint) == (mode == RegistryMode::kMonitor))
      plans.push_back(planOf(options, volume.mountPoint));
  return plans;
}

WatchPlan planForRegistered(const Options& options) {
  if (!options.catalogue.empty())
    throw Failure("--catalogue names the catalogue of one volume only; name the volume, too");
  // One whose disk is away for a while keeps its catalogue, and its place in the registry.
  KDPlatformInfo::setDefault("DataClassification", "nRetainUnMountedVolumes", "1");
  WatchPlan plan = basePlan(options, "registered");
  plan.registered = [options](bool mountsChanged) {
    return registeredPlans(options, mountsChanged);
  };
  return plan;
}

nlohmann::json toJson(const RescanCounts& counts) {
  return {{"added", counts.settled.added},
          {"changed", counts.settled.changed},
          {"moved", counts.settled.moved},
          {"removed", counts.settled.removed},
          {"compared", counts.compared.walk.entries}};
}

// A flush or a comparison that was given up has no answer but that the session ends.
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

// Things are made in the order in which they need each other: the session listens through the
// lines, the report and the signals ask the session, and clients come last, when all can be
// answered.
int watch(const Options& options, const std::vector<std::string>& volumes, bool print,
          ServiceManager& manager) {
  const bool registered = volumes.empty();
  WatchPlan plan = registered ? planForRegistered(options) : planForNamed(options, volumes);
  const bool isOne = !registered && plan.volumes.size() == 1;
  std::unique_ptr<WatchSession> session;
  std::unique_ptr<ControlServer> server;
  Lines lines([&] { return session->savesQueue(); }, [&] { session->stop(); });
  Progress progress(!options.quiet && options.verbosity == 0);
  WatchListeners listeners = listenersFor(options, progress);
  if (print)
    listeners.change = [&](const std::string& volume, CatalogueChange::Kind kind,
                           const std::string& path) {
      const std::string name = isOne ? path : pathOnDisk(volume, path);
      lines.say(fmt::format("{} {}", wordFor(kind), printable(name)));
    };
  const auto placeOf = [&](const std::string& volume) {
    return ControlPlace{volume, controlSocket(options, volume)};
  };
  listeners.added = [&](const std::string& volume) { server->add(placeOf(volume)); };
  session = std::make_unique<WatchSession>(std::move(plan), std::move(listeners), manager);
  ServiceReport report(manager, [&] { return summaryOf(session->states()); });
  const InterruptThread interrupts([&] {
    manager.stopping();
    report.look();
    session->stop();
  });
  // A service is there for those that are registered later.
  if (session->volumes().empty() && !manager.listens())
    throw Failure("no volume is registered; name one, or see: kddc volumes --help");
  std::vector<ControlPlace> places;
  for (const std::string& volume : session->volumes()) places.push_back(placeOf(volume));
  server = std::make_unique<ControlServer>(
      places, [&](const ControlRequest& request, const ControlServer::Gone& gone) {
        return answer(*session, request, gone);
      });
  session->run([&] {
    progress.end();
    lines.say("ready");
    manager.ready();
    report.look();
  });
  lines.requireWritten();
  return kExitDone;
}

}  // namespace

int runWatch(const Options& options, const std::vector<std::string>& volumes, bool print) {
  ServiceManager manager([quiet = options.quiet](const std::string& line) {
    if (!quiet) complain(line);
  });
  try {
    return watch(options, volumes, print, manager);
  } catch (...) {
    manager.failed(describeCurrentException(), errnoOfCurrentException());
    throw;
  }
}

}  // namespace kddc
