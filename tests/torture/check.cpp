// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// check_catalogue: is a catalogue what the disk is? Prints every difference; exit 0 when there is
// none, 1 when there is one, 2 when it cannot tell.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "tests/torture/differences.h"

namespace {

using kddc::torture::Inodes;
using kddc::torture::Lines;
using kddc::torture::TreeWalk;

struct Words {
  std::string volume, catalogue, before, after, survivors;
  std::set<std::string> leaveOut;
};

int report(const Lines& differences) {
  for (const std::string& line : differences) std::puts(line.c_str());
  return differences.empty() ? 0 : 1;
}

int checkExact(const Words& words) {
  return report(kddc::torture::differences(TreeWalk::of(words.volume, words.leaveOut),
                                           kddc::torture::readCatalogue(words.catalogue)));
}

// Compares what `kddc list -0` prints, on standard input.
int checkPaths(const Words& words) {
  std::vector<std::string> printed;
  for (std::string path; std::getline(std::cin, path, '\0');) printed.push_back(path);
  return report(
      kddc::torture::pathDifferences(TreeWalk::of(words.volume, words.leaveOut), printed));
}

int printInodes(const Words& words) {
  std::ifstream list(words.survivors);
  const std::set<std::string> wanted(std::istream_iterator<std::string>(list), {});
  for (const auto& [fid, inodes] :
       kddc::torture::inodesOf(kddc::torture::readFids(words.catalogue), wanted))
    for (const auto inode : inodes) std::cout << fid << ' ' << inode << '\n';
  return 0;
}

Inodes inodesIn(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  Inodes inodes;
  std::string fid;
  for (std::int64_t inode = 0; file >> fid >> inode;) inodes[fid].insert(inode);
  return inodes;
}

int compareInodes(const Words& words) {
  return report(kddc::torture::inodeDifferences(inodesIn(words.before), inodesIn(words.after)));
}

int run(int argc, char** argv) {
  Words words;
  CLI::App app("check_catalogue: is a catalogue what the disk is?");
  app.require_subcommand(1);
  int result = 2;
  const auto command = [&](const char* name, const char* what, int (*answer)(const Words&)) {
    CLI::App* const added = app.add_subcommand(name, what);
    added->callback([&result, &words, answer] { result = answer(words); });
    return added;
  };
  CLI::App* const exact = command("exact", "compare a catalogue with the disk", checkExact);
  CLI::App* const paths = command("paths", "compare `kddc list -0` with the disk", checkPaths);
  CLI::App* const inodes = command("inodes", "print the inodes of survivors", printInodes);
  CLI::App* const same = command("same-inodes", "compare two such prints", compareInodes);
  for (CLI::App* const added : {exact, paths}) {
    added->add_option("VOLUME", words.volume)->required();
    added->add_option("--leave-out", words.leaveOut, "folders that are not catalogued");
  }
  exact->add_option("CATALOGUE", words.catalogue)->required();
  inodes->add_option("CATALOGUE", words.catalogue)->required();
  inodes->add_option("SURVIVORS", words.survivors)->required();
  same->add_option("BEFORE", words.before)->required();
  same->add_option("AFTER", words.after)->required();
  CLI11_PARSE(app, argc, argv);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "check_catalogue: %s\n", e.what());
    return 2;
  }
}
