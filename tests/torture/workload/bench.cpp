// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The life of many small files, a folder of a thousand at a time.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <system_error>

#include "tests/torture/workload/operations.h"

namespace kddc::torture {
namespace {

constexpr long kInAFolder = 1000;

void require(bool done, const std::string& what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

void createFile(int folder, const std::string& name) {
  const UniqueFd fd(openat(folder, name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644));
  require(fd && write(fd.get(), "a few bytes\n", 12) == 12, name);
}

void workThrough(int root, const std::string& name, long files) {
  require(mkdirat(root, name.c_str(), 0755) == 0, name);
  const UniqueFd folder = openFolder(root, name);
  const auto nameOf = [](const char* stem, long i) { return stem + std::to_string(i); };
  for (long i = 0; i < files; ++i) createFile(folder.get(), nameOf("new-", i));
  for (long i = 0; i < files; ++i)
    require(renameat(folder.get(), nameOf("new-", i).c_str(), folder.get(),
                     nameOf("old-", i).c_str()) == 0,
            name);
  for (long i = 0; i < files; ++i)
    require(unlinkat(folder.get(), nameOf("old-", i).c_str(), 0) == 0, name);
  require(unlinkat(root, name.c_str(), AT_REMOVEDIR) == 0, name);
}

}  // namespace

double runBench(const std::string& root, long files) {
  const UniqueFd top = openFolder(AT_FDCWD, root);
  require(static_cast<bool>(top), root);
  const auto began = std::chrono::steady_clock::now();
  for (long done = 0; done < files; done += kInAFolder)
    workThrough(top.get(), "bench-" + std::to_string(done), std::min(kInAFolder, files - done));
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

}  // namespace kddc::torture
