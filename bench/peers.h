// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What people use today, beside which a command of ours is measured: on the same warm tree, taking
// turns, and of each the shortest round counts. Who is not installed is left out, with a line.
#pragma once

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/measured_command.h"
#include "bench/results.h"

namespace kddc::bench {

struct Peer {
  std::string program;       // that must be installed
  std::string name;          // as the table has it
  double aim = 0;            // of ours beside it
  std::function<Cost()> go;  // once
  Cost best{};
};

inline bool isInstalled(const std::string& program) {
  return std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}

inline std::vector<Peer> installed(std::vector<Peer> peers) {
  std::erase_if(peers, [](const Peer& peer) {
    const bool isMissing = !isInstalled(peer.program);
    if (isMissing) std::printf("%s is not installed; left out\n", peer.program.c_str());
    return isMissing;
  });
  return peers;
}

// What `ours` costs, at best; the peers' best costs are noted in them.
inline Cost takeTurns(int rounds, const std::function<Cost()>& ours, std::vector<Peer>& peers) {
  Cost best;
  for (int i = 0; i < rounds; ++i) {
    keepBest(best, ours());
    for (Peer& peer : peers) keepBest(peer.best, peer.go());
  }
  return best;
}

// One figure for each peer; `figure` holds what they have in common.
inline void reportBeside(const std::vector<Peer>& peers, Figure figure) {
  for (const Peer& peer : peers) {
    figure.beside = peer.name;
    figure.theirs = peer.best.seconds;
    figure.aim = peer.aim;
    report(figure);
  }
}

// A watchman of our own, which keeps what it finds in memory; its socket and log are in `folder`.
class Watchman {
 public:
  explicit Watchman(const std::string& folder) : folder_(folder) {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    server_ = start(
        {"watchman", "--foreground", "--no-save-state", socket(), "--logfile=" + folder + "/log",
         "--pidfile=" + folder + "/pid", "--statefile=" + folder + "/state"},
        folder + "/out");
    for (int tries = 0; !std::filesystem::exists(folder + "/socket"); ++tries) {
      if (tries == 1000) throw std::runtime_error("watchman does not start");
      usleep(10000);
    }
  }
  ~Watchman() {
    if (server_ <= 0) return;
    kill(server_, SIGKILL);
    waitpid(server_, nullptr, 0);
  }
  Watchman(const Watchman&) = delete;
  Watchman& operator=(const Watchman&) = delete;

  // Until it has crawled the tree.
  Cost crawl(const std::string& tree) const { return ask({"watch", tree}); }
  // How much memory it came to hold; it ends.
  long shutDown() {
    ask({"shutdown-server"});
    return finish(std::exchange(server_, 0), "watchman", {}).mebibytes;
  }

  // A point in time, for `changesSince`.
  std::string clock(const std::string& tree) const {
    ask({"clock", tree});
    return answer().at("clock");
  }
  // The names of files that have changed, as it knows by now: nothing is waited for.
  Cost changesSince(const std::string& clock, const std::string& tree) const {
    const nlohmann::json query = {"query",
                                  tree,
                                  {{"since", clock},
                                   {"fields", {"name"}},
                                   {"expression", {"type", "f"}},
                                   {"sync_timeout", 0}}};
    std::ofstream(folder_ + "/query") << query;
    const std::string client = "watchman --no-spawn --no-pretty -j " + socket();
    return run({"sh", "-c", client + " <" + folder_ + "/query"}, folder_ + "/answer");
  }
  std::vector<std::string> changed() const { return answer().at("files"); }

 private:
  std::string socket() const { return "--sockname=" + folder_ + "/socket"; }
  Cost ask(const Command& words) const {
    Command command = {"watchman", "--no-spawn", socket()};
    command.insert(command.end(), words.begin(), words.end());
    return run(command, folder_ + "/answer");
  }
  nlohmann::json answer() const {
    std::ifstream file(folder_ + "/answer");
    return nlohmann::json::parse(file);
  }

  std::string folder_;
  pid_t server_ = 0;
};

}  // namespace kddc::bench
