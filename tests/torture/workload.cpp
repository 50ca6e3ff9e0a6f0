// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// workload: everything that can be done to a tree, at random, by several processes at once. A seed
// fixes what each process tries; how they come between each other is the scheduler's.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "tests/torture/tree.h"
#include "tests/torture/workload/operations.h"

namespace {

using kddc::torture::Operation;
using kddc::torture::Options;
using kddc::torture::Tree;
using kddc::torture::Worker;

// All operations, each as often as it weighs.
std::vector<Operation> allOperations() {
  std::vector<Operation> all;
  for (const auto& kind : {kddc::torture::contentOperations(), kddc::torture::attributeOperations(),
                           kddc::torture::nameOperations(), kddc::torture::burstOperations(),
                           kddc::torture::keptOperations()})
    for (const Operation& operation : kind) all.insert(all.end(), operation.weight, operation);
  return all;
}

void work(const Options& options, int index) {
  const std::vector<Operation> operations = allOperations();
  Worker worker(options, index);
  for (long i = 0; i < options.operations / options.processes; ++i) {
    worker.random.pick(operations).run(worker);
    if (options.pause > 0) usleep(options.pause);  // paces the load, as asked
  }
}

// Links of a file that lives throughout may go.
bool livesThroughout(const std::string& path) {
  const std::string name = std::filesystem::path(path).filename();
  return kddc::torture::isKept(name) && !name.starts_with("keeplink");
}

// Appears whole: whoever waits for the file finds all in it.
void listSurvivors(const Options& options) {
  const std::string unfinished = options.survivors + ".new";
  std::ofstream list(unfinished);
  const std::string kept = options.root + "/" + kddc::torture::kKept;
  for (const auto& [path, facts] : kddc::torture::TreeWalk::of(kept))
    if (livesThroughout(path)) list << facts.fid << '\n';
  list.close();
  std::filesystem::rename(unfinished, options.survivors);
}

void prepare(const Options& options) {
  Worker worker(options, 0);
  makeKept(worker);
  if (options.manyLinks) makeManyLinks(worker);
  if (!options.survivors.empty()) listSurvivors(options);
}

int waitForAll() {
  int failed = 0, status = 0;
  while (wait(&status) > 0) failed |= !WIFEXITED(status) || WEXITSTATUS(status) != 0;
  return failed;
}

int runWorkload(const Options& options) {
  umask(022);
  prepare(options);
  for (int index = 1; index <= options.processes; ++index) {
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("cannot fork");
    if (child > 0) continue;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    work(options, index);
    _exit(0);
  }
  return waitForAll();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  long benchFiles = 0;
  CLI::App app("workload: everything that can be done to a tree, at random");
  app.add_option("--root", options.root, "the folder to work in")->required();
  app.add_option("--outside", options.outside, "a folder to move to and from");
  app.add_option("--survivors", options.survivors, "where to list what lives throughout");
  app.add_option("--seed", options.seed);
  app.add_option("--operations", options.operations, "of all processes together");
  app.add_option("--processes", options.processes)->check(CLI::Range(1, 64));
  app.add_option("--pause", options.pause, "microseconds between two operations of a process");
  app.add_flag("--hold-open", options.holdOpen, "keep some files open for a while");
  app.add_flag("--no-devices", options.noDevices, "make no device nodes");
  app.add_flag("--many-links", options.manyLinks, "give one file 16,500 links at first");
  app.add_option("--bench", benchFiles, "create, rename and remove so many files, print seconds");
  CLI11_PARSE(app, argc, argv);
  try {
    if (benchFiles == 0) return runWorkload(options);
    std::printf("%.6f\n", kddc::torture::runBench(options.root, benchFiles));
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "workload: %s\n", e.what());
    return 1;
  }
}
