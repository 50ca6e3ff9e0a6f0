// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Takes all the room that a file system has, and gives it back.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

namespace kddc::test {

class Balloon {
 public:
  // In that folder, at once.
  explicit Balloon(const std::string& folder)
      : path_(folder + "/balloon"),
        file_(open(path_.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)) {
    const std::vector<char> air(1 << 16);
    for (std::size_t bytes = air.size(); bytes > 0;)
      if (::write(file_.get(), air.data(), bytes) <= 0) bytes /= 2;
    fsync(file_.get());  // a block that is promised may still turn out not to be there
  }
  ~Balloon() { burst(); }
  Balloon(const Balloon&) = delete;
  Balloon& operator=(const Balloon&) = delete;

  // So much room is there from now on.
  void leave(std::int64_t bytes) const {
    const off_t size = lseek(file_.get(), 0, SEEK_END);
    [[maybe_unused]] const int cut = ftruncate(file_.get(), size > bytes ? size - bytes : 0);
    fsync(file_.get());
  }
  void burst() const {
    leave(lseek(file_.get(), 0, SEEK_END));
    unlink(path_.c_str());
  }

 private:
  std::string path_;
  UniqueFd file_;
};

}  // namespace kddc::test
