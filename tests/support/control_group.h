// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A control group of the test's own with a limit of memory, of either version of them; for root.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>

#include "tests/support/temp_folder.h"

namespace kddc::test {

class ControlGroup {
 public:
  // Why there can be none; empty when there can.
  static std::string whyNot() {
    try {
      const ControlGroup group;
      group.setLimit(std::uint64_t{1} << 30);
      return group.used() == 0 ? "" : "a new control group is not empty";
    } catch (const std::exception& e) {
      return std::string("no control group can be made: ") + e.what();
    }
  }

  ControlGroup() {
    if (isSecond_) std::ofstream(root_ + "/cgroup.subtree_control") << "+memory";
    std::filesystem::create_directory(path_);
  }
  // Whatever was in it has ended.
  ~ControlGroup() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  ControlGroup(const ControlGroup&) = delete;
  ControlGroup& operator=(const ControlGroup&) = delete;

  void setLimit(std::uint64_t bytes) const {
    put(isSecond_ ? "memory.max" : "memory.limit_in_bytes", std::to_string(bytes));
  }
  // What its processes use, and what the kernel uses for them.
  std::uint64_t used() const {
    std::uint64_t bytes = 0;
    std::ifstream(file(isSecond_ ? "memory.current" : "memory.usage_in_bytes")) >> bytes;
    return bytes;
  }
  // What a child process does to come into it.
  std::function<void()> preparation() const {
    return [this] { put("cgroup.procs", "0"); };
  }

 private:
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  void put(const std::string& name, const std::string& value) const {
    std::ofstream to(file(name));
    if (!(to << value << std::flush))
      throw std::system_error(errno, std::generic_category(), "cannot write " + file(name));
  }

  static inline const bool isSecond_ = std::filesystem::exists("/sys/fs/cgroup/cgroup.controllers");
  static inline const std::string root_ = isSecond_ ? "/sys/fs/cgroup" : "/sys/fs/cgroup/memory";
  std::string path_ = root_ + "/" + std::filesystem::path(TempFolder().path()).filename().string();
};

}  // namespace kddc::test
