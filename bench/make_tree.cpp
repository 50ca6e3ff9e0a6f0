// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Makes a tree of empty files for measurements:  make_tree FOLDER FILES FOLDERS
//
// Folders are spread below each other 16 at a time, files evenly over the folders. Everything is
// made relative to open folders, so that the making of a million files takes seconds.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>

namespace {

constexpr long kFanOut = 16;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Folder `index` lies in folder (index - 1) / kFanOut; folder 0 is the root of the tree.
std::string pathOf(long index) {
  if (index == 0) return ".";
  return pathOf((index - 1) / kFanOut) + "/folder-" + std::to_string(index);
}

void makeFiles(int folder, long first, long end) {
  for (long i = first; i < end; ++i) {
    const std::string name = "file-" + std::to_string(i) + ".dat";
    const int fd = openat(folder, name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0) fail(name);
    close(fd);
  }
}

void makeTree(const char* root, long files, long folders) {
  if (mkdir(root, 0755) != 0) fail(root);
  const int top = open(root, O_DIRECTORY | O_CLOEXEC);
  if (top < 0) fail(root);
  for (long i = 0; i < folders; ++i) {
    const std::string path = pathOf(i);
    if (i > 0 && mkdirat(top, path.c_str(), 0755) != 0) fail(path);
    const int folder = openat(top, path.c_str(), O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) fail(path);
    makeFiles(folder, files * i / folders, files * (i + 1) / folders);
    close(folder);
  }
  close(top);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: make_tree FOLDER FILES FOLDERS\n");
    return 2;
  }
  try {
    makeTree(argv[1], std::atol(argv[2]), std::atol(argv[3]));
    return 0;
  } catch (const std::system_error& e) {
    std::fprintf(stderr, "make_tree: %s\n", e.what());
    return 1;
  }
}
