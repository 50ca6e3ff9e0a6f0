// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/commands/volume.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>

#include "agent/errors.h"
#include "platform/stub_attribute.h"

namespace kddc {

UniqueFd openVolume(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) throw systemFailure("cannot read the volume " + path, errno);
  return fd;
}

WalkOptions walkOptions(const std::vector<std::string>& leftOut) {
  WalkOptions options;
  options.stubAttribute = stubAttribute();
  for (const std::string& folder : leftOut) {
    struct stat st;
    if (stat(folder.c_str(), &st) == 0) options.leaveOut.push_back({st.st_dev, st.st_ino});
  }
  return options;
}

void complainAboutLostFolders(const WalkCounts& counts, const char* work) {
  if (counts.lostFolders == 0) return;
  complain(
      fmt::format("{} folders moved or vanished during the {}; what they held may be missing, {} "
                  "again to be sure",
                  counts.lostFolders, work, work));
}

}  // namespace kddc
