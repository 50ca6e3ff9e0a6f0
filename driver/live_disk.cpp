// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "driver/live_disk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/exceptions.h"
#include "platform/file_handle.h"
#include "platform/mount_info.h"
#include "platform/stub_attribute.h"
#include "records/fsf_fid.h"

namespace kddc {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kEntryFlags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
constexpr int kWayFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr int kTries = 100;  // real want of memory says the same, and may not end
// From so many names that are not there on a list of the folder costs less; one of a larger folder
// would cost more than it spares.
constexpr int kWorthListing = 4;
constexpr std::size_t kMostListed = 4096;
constexpr std::size_t kListBytes = 8192;  // some hundred names: a slice of a long listing

// What is gone, or is not any more what it was, answers. EINVAL is for bytes that are no
// identifier: no file ever had it.
bool meansGone(int error) {
  return error == ESTALE || error == ENOENT || error == ENOTDIR || error == ELOOP ||
         error == EINVAL;
}

// Of a volume that cannot be looked at. It says nothing of the file that was asked for, and must
// not mean that it is gone.
int errorOfVolume(int error) {
  return error <= 0 || meansGone(error) ? ENODEV : error;
}

Look failed(int error) {
  Look look;
  look.sight = meansGone(error) ? Sight::kAbsent : Sight::kUnknown;
  look.error = look.sight == Sight::kUnknown ? error : 0;
  return look;
}

[[noreturn]] void failAsGone(const std::string& path) {
  throw std::system_error(ENODEV, std::generic_category(), path + " is not mounted any more");
}

Identity identityOrThrow(int fd) {
  Identity identity;
  if (const int result = identityOf(fd, identity); result < 0)
    throw std::system_error(-result, std::generic_category(), "cannot look at a volume's root");
  return identity;
}

// What the kernel calls the file of a descriptor.
std::string linkText(int fd) {
  std::array<char, PATH_MAX> path;
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = readlink(link.c_str(), path.data(), path.size());
  return {path.data(), length < 0 ? 0 : static_cast<std::size_t>(length)};
}

// 0, or a negative errno.
int readLink(int fd, std::string& text) {
  std::array<char, PATH_MAX> buffer;
  const ssize_t length = readlinkat(fd, "", buffer.data(), buffer.size());
  if (length < 0) return -errno;
  text.assign(buffer.data(), static_cast<std::size_t>(length));
  return 0;
}

bool contains(const std::vector<fsf_fid>& fids, const fsf_fid& fid) {
  return std::ranges::find(fids, fid) != fids.end();
}

bool isDots(const char* name) {
  return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

class OpenListing : public Listing {
 public:
  // `error` is that of a folder that could not be opened.
  OpenListing(UniqueFd folder, int error) : folder_(std::move(folder)), error_(error) {}

  int read(std::vector<std::string>& names) override {
    names.clear();
    if (!folder_) return meansGone(error_) ? 0 : -error_;
    // A block of names may hold nothing but "." and "..".
    while (names.empty()) {
      const ssize_t length = getdents64(folder_.get(), buffer_.data(), buffer_.size());
      if (length == 0 || (length < 0 && meansGone(errno))) break;
      if (length < 0) return -errno;
      for (ssize_t at = 0; at < length;) {
        const auto* entry = reinterpret_cast<const dirent64*>(buffer_.data() + at);
        at += entry->d_reclen;
        if (!isDots(entry->d_name)) names.emplace_back(entry->d_name);
      }
    }
    return static_cast<int>(names.size());
  }

 private:
  UniqueFd folder_;
  int error_;
  alignas(dirent64) std::array<char, kListBytes> buffer_;
};

}  // namespace

LiveDisk::LiveDisk(LiveDiskOptions options)
    : leaveOut_(std::move(options.leaveOut)), stubAttribute_(std::move(options.stubAttribute)) {
  for (const std::string& path : options.roots) addRoot(path);
}

void LiveDisk::addRoot(const std::string& path) {
  DetachedFolder folder(path);
  const Identity identity = identityOrThrow(folder.fd());
  if (!roots_.empty() && identity.st.st_dev != device_)
    throw std::invalid_argument("the volumes lie on several file systems");
  device_ = identity.st.st_dev;
  roots_.push_back({path, identity.fid, std::move(folder)});
  isSure_ = knowsMounts_ = false;
}

void LiveDisk::dropRoot(const fsf_fid& root) {
  if (roots_.size() > 1) std::erase_if(roots_, [&](const Root& r) { return r.fid == root; });
  isSure_ = knowsMounts_ = false;
}

void LiveDisk::forget() {
  folder_ = {};
  isSure_ = false;
}

void LiveDisk::letGo() {
  forget();
  for (Root& root : roots_) root.folder.reset();
}

int LiveDisk::hold() try {
  if (isSure_) return 0;
  takeHold();
  if (mountChanges_.any()) knowsMounts_ = false;
  if (!knowsMounts_) readMounts();
  isSure_ = true;
  return 0;
} catch (const std::system_error& e) {
  letGo();
  return errorOfVolume(e.code().value());
} catch (const KdException& e) {
  letGo();
  return errorOfVolume(e.getCode());
}

void LiveDisk::takeHold() {
  for (Root& root : roots_) {
    if (root.folder) continue;
    root.folder.emplace(root.path);
    const Identity identity = identityOrThrow(root.folder->fd());
    if (identity.st.st_dev != device_ || !(identity.fid == root.fid)) failAsGone(root.path);
  }
}

void LiveDisk::readMounts() {
  covered_.clear();
  for (const Root& root : roots_) {
    const auto covered = root.folder->covered();
    if (!covered) failAsGone(root.path);
    covered_.insert(covered_.end(), covered->begin(), covered->end());
  }
  knowsMounts_ = true;
}

Look LiveDisk::lookUp(const fsf_fid& folder, const std::string& name) {
  if (const int result = openFolder(folder); result < 0) return failed(-result);
  if (findCovered(covered_, folder, name)) return {};
  if (folder_.names && !folder_.names->contains(name)) return {};
  const UniqueFd fd(openat(folder_.fd.get(), name.c_str(), kEntryFlags));
  if (fd) return examine(fd.get(), true);
  const int error = errno;
  if (error == ENOENT) noteAbsent();
  return failed(error);
}

// To find that a name is not there locks the folder, and whoever makes changes in it waits. In a
// burst of renames that is every other name; then one listing tells of them all. What changes
// after it raises an event that is still to be read. The copy shares the place where reading goes
// on, which is the beginning: a folder is listed once.
void LiveDisk::noteAbsent() {
  if (++folder_.absent != kWorthListing) return;
  OpenListing listing(UniqueFd(dup(folder_.fd.get())), EMFILE);
  std::unordered_set<std::string> all;
  std::vector<std::string> some;
  int read = 0;
  while (all.size() < kMostListed && (read = listing.read(some)) > 0)
    all.insert(std::move_iterator(some.begin()), std::move_iterator(some.end()));
  if (read == 0) folder_.names = std::move(all);
}

// Several handles may open one file: file systems pass over a type or bytes that they do not need.
// Only the one that the kernel tells of is its identifier; no events and no names speak of another.
Look LiveDisk::lookAt(const fsf_fid& fid) {
  const UniqueFd fd = open(fid, kEntryFlags);
  if (!fd) return failed(errno);
  Look look = examine(fd.get(), false);
  return look.sight == Sight::kThere && !(look.fid == fid) ? Look{} : look;
}

std::unique_ptr<Listing> LiveDisk::list(const fsf_fid& folder) {
  UniqueFd fd = open(folder, kFolderFlags);
  const int error = fd ? 0 : errno;
  return std::make_unique<OpenListing>(std::move(fd), error);
}

int LiveDisk::openFolder(const fsf_fid& folder) {
  if (const int error = hold(); error != 0) return -error;
  if (folder_.fd && folder_.fid == folder) return 0;
  folder_ = {};
  folder_.fid = folder;
  folder_.fd = open(folder, kFolderFlags);
  return folder_.fd ? 0 : -errno;
}

// ext4 says ENOMEM for a moment while it makes a new file where the one asked for has been.
UniqueFd LiveDisk::open(const Root& through, const fsf_fid& fid, int flags) {
  int fd = -ENOMEM;
  for (int tries = 0; fd == -ENOMEM && tries < kTries; ++tries) {
    if (tries > 0) sched_yield();
    fd = openByFid(through.folder->fd(), fid, flags);
  }
  if (fd < 0) errno = -fd;
  return UniqueFd(fd);
}

UniqueFd LiveDisk::open(const fsf_fid& fid, int flags) {
  errno = hold();
  return errno == 0 ? open(roots_.front(), fid, flags) : UniqueFd();
}

// By a name one may come to another mount, by an identifier never: what is the root of its mount is
// then a volume.
Look LiveDisk::examine(int fd, bool byName) const {
  Identity identity;
  if (const int result = identityOf(fd, identity); result < 0) return failed(-result);
  if (isLeftOut(identity) || (byName && identity.isMountRoot)) return {};
  Look look;
  look.sight = Sight::kThere;
  look.fid = identity.fid;
  look.st = identity.st;
  if (S_ISLNK(look.st.st_mode)) {
    if (const int result = readLink(fd, look.linkText); result < 0) return failed(-result);
  }
  if (S_ISREG(look.st.st_mode)) {
    const int isStub = regularCarriesStubAttribute(fd, stubAttribute_);
    if (isStub < 0) return failed(-isStub);
    look.isStub = isStub == 1;
  }
  return look;
}

bool LiveDisk::isLeftOut(const Identity& identity) const {
  return identity.st.st_dev != device_ || contains(leaveOut_, identity.fid);
}

bool LiveDisk::isHidden(const fsf_fid& fid) const {
  return std::ranges::find(covered_, fid, &CoveredPlace::fid) != covered_.end();
}

Whereabouts LiveDisk::whereabouts(const fsf_fid& fid, const fsf_fid* root) {
  if (hold() != 0) return Whereabouts::kUnknown;
  bool isUnknown = false;
  for (const Root& one : roots_) {
    // What is gone for one is gone for all: by its identifier a file opens through any of them.
    const Whereabouts where = whereaboutsIn(one, fid, root ? *root : one.fid);
    if (where == Whereabouts::kGone || where == Whereabouts::kInside) return where;
    isUnknown = isUnknown || where == Whereabouts::kUnknown;
  }
  return isUnknown ? Whereabouts::kUnknown : Whereabouts::kOutside;
}

// The mount of a volume ends at its root: upwards, and by path, it tells only of what lies below.
Whereabouts LiveDisk::whereaboutsIn(const Root& mount, const fsf_fid& fid,
                                    const fsf_fid& root) const {
  UniqueFd file = open(mount, fid, kEntryFlags);
  if (!file) return meansGone(errno) ? Whereabouts::kGone : Whereabouts::kUnknown;
  struct stat st {};
  if (fstat(file.get(), &st) != 0) return Whereabouts::kUnknown;
  if (S_ISDIR(st.st_mode)) return climb(std::move(file), root);
  if (isHidden(fid)) return Whereabouts::kOutside;
  UniqueFd folder = folderOf(file.get(), mount);
  return folder ? climb(std::move(folder), root) : Whereabouts::kOutside;
}

std::vector<std::pair<fsf_fid, std::string>> LiveDisk::wayTo(const fsf_fid& fid,
                                                             const fsf_fid* root) {
  if (hold() != 0) return {};
  for (const Root& one : roots_) {
    if (root && !(one.fid == *root)) continue;
    if (auto way = wayThrough(one, fid); !way.empty()) return way;
  }
  return {};
}

// The folders by "..", their names by the kernel's path.
std::vector<std::pair<fsf_fid, std::string>> LiveDisk::wayThrough(const Root& mount,
                                                                  const fsf_fid& fid) {
  std::vector<std::pair<fsf_fid, std::string>> way;
  const UniqueFd file = open(mount, fid, kEntryFlags);
  if (!file) return {};
  std::string path = linkText(file.get());
  for (UniqueFd folder = folderOf(file.get(), mount); folder;) {
    const std::size_t slash = path.rfind('/');
    Identity identity;
    if (slash == std::string::npos || identityOf(folder.get(), identity) < 0) break;
    way.emplace_back(identity.fid, path.substr(slash + 1));
    if (identity.fid == mount.fid) return {way.rbegin(), way.rend()};
    path.resize(slash);
    folder = UniqueFd(openat(folder.get(), "..", kWayFlags));
  }
  return {};
}

// The kernel knows the folder of a file only by the name that it was last reached by. It knows none
// when no name was used of late, and says "/", as it does where no name leads from the mount's root
// to the file; if it was for the former, none is being made, either.
UniqueFd LiveDisk::folderOf(int file, const Root& mount) {
  std::string path = linkText(file);
  const std::string top = linkText(mount.folder->fd());
  if (path == "/" || !isAtOrBelow(path, top)) return {};
  path = path.substr(top == "/" ? 1 : top.size() + 1);
  path.resize(path.rfind('/') == path.npos ? 0 : path.rfind('/'));
  return UniqueFd(openat(mount.folder->fd(), ("./" + path).c_str(), kWayFlags));
}

// Upwards by "..": a path would end at 4096 bytes, and may speak of another mount. Above the top of
// all is that folder itself.
Whereabouts LiveDisk::climb(UniqueFd folder, const fsf_fid& root) const {
  fsf_fid below{};
  for (;;) {
    Identity identity;
    if (identityOf(folder.get(), identity) < 0) return Whereabouts::kUnknown;
    if (identity.st.st_dev != device_ || identity.fid == below) return Whereabouts::kOutside;
    if (contains(leaveOut_, identity.fid) || isHidden(identity.fid)) return Whereabouts::kOutside;
    if (identity.fid == root) return Whereabouts::kInside;
    below = identity.fid;
    UniqueFd parent(openat(folder.get(), "..", kWayFlags));
    if (!parent) return meansGone(errno) ? Whereabouts::kOutside : Whereabouts::kUnknown;
    folder = std::move(parent);
  }
}

}  // namespace kddc
