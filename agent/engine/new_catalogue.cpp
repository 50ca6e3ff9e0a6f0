// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The order of the steps is what makes it safe: locked, looked at, built beside, closed durably,
// exchanged, and only then is the old one removed.
#include "agent/engine/new_catalogue.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "agent/engine/catalogue_folder.h"
#include "agent/engine/catalogue_reader.h"
#include "agent/engine/own_catalogue.h"
#include "agent/errors.h"
#include "agent/own_folder.h"
#include "platform/unique_fd.h"
#include "volumes/catalogue_files.h"

namespace kddc {
namespace {

constexpr std::chrono::milliseconds kRetry(20), kPatience(5000);

std::string parentOf(const std::string& folder) {
  return std::filesystem::path(folder).parent_path().string();
}

// The folder above, locked: nobody else creates or exchanges catalogues in it meanwhile. Others
// hold the lock for moments only, unless they are stopped or their disk is.
UniqueFd lockParent(const std::string& folder) {
  using std::chrono_literals::operator""ms;
  const std::string parent = parentOf(folder);
  UniqueFd fd(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) throw systemFailure("cannot open " + parent, errno);
  for (auto waited = 0ms; flock(fd.get(), LOCK_EX | LOCK_NB) != 0; waited += kRetry) {
    if (errno != EWOULDBLOCK) throw systemFailure("cannot lock " + parent, errno);
    if (waited >= kPatience)
      throw Failure("another scan has locked " + parent + " and does not go on; stop it first");
    std::this_thread::sleep_for(kRetry);
  }
  return fd;
}

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

bool isMountPoint(const std::string& path) {
  struct statx status;
  return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, 0, &status) == 0 &&
         (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

}  // namespace

NewCatalogue::NewCatalogue(std::string folder, std::string volumePath)
    : folder_(std::move(folder)), building_(folder_ + ".new"), volumePath_(std::move(volumePath)) {
  makeFoldersAbove(folder_);
  const UniqueFd parent = lockParent(folder_);
  refuseWhileInUse();
  refuseUnlessReplaceable();
  create();
}

NewCatalogue::~NewCatalogue() {
  if (!db_) return;
  db_.reset();
  RemoveDCDb(building_);
}

void NewCatalogue::refuseWhileInUse() const {
  for (const std::string& folder : {folder_, building_})
    if (const auto user = userOf(folder))
      throw Failure(fmt::format("{} is in use by {}; stop it first", folder_, *user));
}

void NewCatalogue::refuseUnlessReplaceable() const {
  if (folder_ == volumePath_)
    throw Failure(folder_ + " is the volume itself; name another folder for its catalogue");
  if (isMountPoint(folder_))
    throw Failure(folder_ + " is a mount point; name a folder below it for the catalogue");
  for (const std::string& folder : {folder_, building_}) {
    refuseForeignFiles(folder);
    requireOwnFiles(folder);
  }
  const auto owner = volumeOf(folder_);
  if (owner && *owner != volumePath_)
    throw Failure(
        fmt::format("{} holds the catalogue of {}; name another folder", folder_, *owner));
}

void NewCatalogue::create() {
  during("cannot make a catalogue in " + building_, [&] {
    db_ = std::make_unique<ScanCatalogue>(building_);
    try {
      db_->CreateDb();
      if (!db_->OpenHandle(false, false))
        throw Failure("cannot open the catalogue in " + building_);
      db_->beginBuild();
    } catch (...) {  // no destructor runs: this is the constructor's
      db_.reset();
      RemoveDCDb(building_);
      throw;
    }
  });
}

void NewCatalogue::publish(std::time_t began) {
  during("cannot scan " + volumePath_, [&] { db_->endBuild(); });
  during("cannot finish the catalogue in " + building_, [&] {
    db_->UpdateTimesForFullScan();
    db_->CloseHandle(static_cast<unsigned long>(began), false);
  });
  // The lock was not held during the scan, which may have taken hours: someone may watch by now.
  const UniqueFd parent = lockParent(folder_);
  refuseWhileInUse();
  exchange();
  // From here on it answers, and what lies beside it is the old one.
  db_.reset();
  // The new name is on the disk before the old catalogue goes: a power loss in between must not
  // leave the old name without its files. Some file systems have no such thing.
  if (fsync(parent.get()) != 0 && errno != EINVAL)
    throw systemFailure("the new catalogue at " + folder_ + " may not outlast a power loss", errno);
  RemoveDCDb(building_);
}

void NewCatalogue::exchange() const {
  const char* from = building_.c_str();
  const char* to = folder_.c_str();
  const bool replaces = exists(folder_);
  const unsigned flags = replaces ? RENAME_EXCHANGE : RENAME_NOREPLACE;
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, flags) == 0) return;
  // A file system that cannot exchange names: the old one steps aside.
  const bool cannotExchange = errno == EINVAL || errno == ENOSYS;
  const std::string aside = folder_ + ".old";
  if (cannotExchange && (!replaces || rename(to, aside.c_str()) == 0)) {
    if (rename(from, to) == 0) return RemoveDCDb(aside);
    if (replaces) rename(aside.c_str(), to);
  }
  throw systemFailure("cannot put the new catalogue at " + folder_, errno);
}

}  // namespace kddc
