// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// `kddc watch` as a process beside the test, on a file system of the test's own; the state folder
// lies elsewhere. Skips where nothing can be mounted.
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "agent/catalogue_place.h"
#include "tests/support/database_view.h"
#include "tests/support/loop_mount.h"
#include "tests/support/program.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {

struct WatchTest : testing::Test {
  TempFolder temp{inMemory()};
  std::string state = temp / "state";
  std::optional<LoopMount> mount;
  std::string volume;
  Options options;

  explicit WatchTest(std::string fsType = "tmpfs") : fsType_(std::move(fsType)) {
    options.state = state;
  }
  void SetUp() override {
    if (const std::string why = LoopMount::whyNot(fsType_); !why.empty()) GTEST_SKIP() << why;
    mount.emplace(fsType_);
    volume = mount->path();
  }

  Outcome run(Words words) const {
    words.insert(words.end(), {"--state", state});
    return Program::run(words);
  }
  // Starts `kddc watch` and waits until it is live.
  std::unique_ptr<Program> watch(Words words, const Program::Preparation& prepare = {}) const {
    auto program = launch(std::move(words), prepare);
    EXPECT_TRUE(program->waitUntil([&] { return program->out().starts_with("ready\n"); }))
        << program->err();
    return program;
  }
  std::unique_ptr<Program> watch() const { return watch({volume}); }
  // The same without waiting.
  std::unique_ptr<Program> launch(Words words, const Program::Preparation& prepare = {}) const {
    words.insert(words.begin(), "watch");
    words.insert(words.end(), {"--state", state});
    return std::make_unique<Program>(words, prepare);
  }
  static void stop(Program& program, int signal = SIGTERM) {
    program.signal(signal);
    const Outcome outcome = program.finish();
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
  }
  void flush(const std::string& path) const {
    const Outcome outcome = run({"flush", path});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
  }
  void flush() const { flush(volume); }

  // On how many file systems the process has the kernel tell it of changes.
  static std::size_t marks(const Program& program) {
    std::size_t marks = 0;
    const std::string folder = "/proc/" + std::to_string(program.pid()) + "/fdinfo";
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      std::ifstream lines(entry.path());
      for (std::string line; std::getline(lines, line);)
        marks += line.starts_with("fanotify sdev:");
    }
    return marks;
  }

  // Names that end with `separator`, sorted.
  static Words split(const std::string& text, char separator) {
    Words words;
    std::istringstream stream(text);
    for (std::string word; std::getline(stream, word, separator);) words.push_back(word);
    std::ranges::sort(words);
    return words;
  }
  // What the catalogue holds, and what the disk does.
  Words listed(const std::string& path) const {
    const Outcome outcome = run({"list", "-0", path});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    return split(outcome.out, '\0');
  }
  Words listed() const { return listed(volume); }
  static Words onDisk(const std::string& path) {
    Words names = {"."};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path))
      names.push_back(entry.path().lexically_relative(path).string());
    std::ranges::sort(names);
    return names;
  }
  nlohmann::json status(const std::string& path) const {
    const Outcome outcome = run({"status", "--json", path});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    return nlohmann::json::parse(outcome.out);
  }
  nlohmann::json status() const { return status(volume); }

  std::string catalogueOf(const std::string& path) const { return catalogueFolder(options, path); }
  // The rows of the volume's catalogue.
  Words rows(const std::string& sql) const {
    return DatabaseView(catalogueOf(volume) + "/.db.kd").rows(sql);
  }
  std::string queueFile(const std::string& name) const {
    return state + "/queues/" + placeName(volume) + name;
  }
  void write(const std::string& name, const std::string& text = "") const {
    std::ofstream(volume + "/" + name, std::ios::binary | std::ios::trunc) << text;
  }
  std::string operator/(const std::string& name) const { return volume + "/" + name; }

 private:
  std::string fsType_;
};

}  // namespace kddc::test
