// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A real file system of its own for one test: an image behind a loop device, or a tmpfs, or an
// overlay on a tmpfs.
//
// The first mount moves the process into a mount namespace of its own, so that nothing stays
// mounted however the process ends, and no other process holds the mount busy. Threads and programs
// started from then on see the mounts; threads started before do not.
//
//   if (const std::string why = LoopMount::whyNot("xfs"); !why.empty()) GTEST_SKIP() << why;
//   LoopMount volume("xfs");
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "platform/mount_info.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {

class LoopMount {
 public:
  // Why a file system of that type cannot be mounted here; empty when it can.
  static std::string whyNot(const std::string& fsType) {
    if (::geteuid() != 0) return "mounting needs root";
    if (!enterNamespace()) return "mounting needs CAP_SYS_ADMIN";
    if (usesImage(fsType)) {
      if (::access("/dev/loop-control", R_OK | W_OK) != 0) return "there are no loop devices";
      if (std::system(("command -v mkfs." + fsType + " >/dev/null").c_str()) != 0)
        return "mkfs." + fsType + " is not installed";
    }
    if (!kernelKnows(fsType)) return "the kernel has no " + fsType;
    return "";
  }

  // Makes the file system and mounts it; throws when that fails.
  explicit LoopMount(std::string fsType, const std::string& options = "")
      : fsType_(std::move(fsType)) {
    enterNamespace();
    std::filesystem::create_directory(path());
    if (usesImage(fsType_)) {
      folder_.write("image", "");
      std::filesystem::resize_file(folder_ / "image", imageSize(fsType_));
    }
    format();
    mount(options);
  }
  ~LoopMount() {
    // A lazy unmount works also while the test still holds a file open in there.
    if (mounted_) ::umount2(path().c_str(), MNT_DETACH);
    ::umount2((folder_ / "base").c_str(), MNT_DETACH);
  }
  LoopMount(const LoopMount&) = delete;
  LoopMount& operator=(const LoopMount&) = delete;

  // The mount point.
  std::string path() const { return folder_ / "volume"; }
  std::string operator/(const std::string& name) const { return path() + "/" + name; }
  // st_dev of its root.
  dev_t device() const {
    struct stat st {};
    if (::stat(path().c_str(), &st) != 0) throw std::system_error(errno, std::generic_category());
    return st.st_dev;
  }

  // The loop device that is mounted; empty where there is none.
  std::string loopDevice() const {
    return usesImage(fsType_) ? mountOf(readMountInfo(), path())->source : "";
  }

  // Unmounts as a user would: throws when something holds it busy.
  void unmount() {
    if (::umount2(path().c_str(), 0) != 0)
      throw std::system_error(errno, std::generic_category(), "umount " + path());
    mounted_ = false;
  }
  // Makes a new file system in the place of the one that unmount left.
  void format() const {
    if (!usesImage(fsType_)) return;
    run("mkfs." + fsType_ + (fsType_ == "ext4" ? " -q -F " : " -q -f ") + folder_ / "image");
  }
  // Mounts again what unmount left, optionally with mount options; a tmpfs comes back empty.
  void mount(const std::string& options = "") {
    mountAt(path(), options);
    mounted_ = true;
  }
  // The same at another place, which the caller unmounts.
  void mountAt(const std::string& place, const std::string& options = "") const {
    std::string all = options.empty() ? "rw" : "rw," + options;
    if (usesImage(fsType_)) all += ",loop";
    if (fsType_ == "overlay") all += overlayFolders();
    run("mount -t " + fsType_ + " -o " + all + " " +
        (usesImage(fsType_) ? folder_ / "image" : "none") + " " + place);
  }

 private:
  static bool usesImage(const std::string& fsType) {
    return fsType != "tmpfs" && fsType != "overlay";
  }
  // The smallest that each mkfs takes, with some room.
  static std::uintmax_t imageSize(const std::string& fsType) {
    static const std::map<std::string, std::uintmax_t> kMegabytes = {
        {"ext4", 16}, {"xfs", 320}, {"btrfs", 120}};
    const auto size = kMegabytes.find(fsType);
    return (size == kMegabytes.end() ? 64 : size->second) << 20;
  }

  static bool enterNamespace() {
    static const bool entered = ::unshare(CLONE_NEWNS) == 0 &&
                                ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return entered;
  }

  static bool kernelKnows(const std::string& fsType) {
    // Loads a module, where it is one; the list tells whether that worked.
    const std::string load = "modprobe -q " + fsType + " 2>/dev/null";
    if (std::system(load.c_str()) != 0) errno = 0;
    std::ifstream list("/proc/filesystems");
    for (std::string word; list >> word;)
      if (word == fsType) return true;
    return false;
  }

  static void run(const std::string& command) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0)
      throw std::runtime_error("failed: " + command);
  }

  // What an overlay is made of, on a tmpfs of its own, because it takes no other overlay as base.
  std::string overlayFolders() const {
    const std::string base = folder_ / "base";
    if (std::filesystem::create_directory(base)) run("mount -t tmpfs none " + base);
    for (const char* name : {"lower", "upper", "work"})
      std::filesystem::create_directory(base + "/" + name);
    return ",lowerdir=" + base + "/lower,upperdir=" + base + "/upper,workdir=" + base + "/work";
  }

  TempFolder folder_;
  std::string fsType_;
  bool mounted_ = false;
};

}  // namespace kddc::test
