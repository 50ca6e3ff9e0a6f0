// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Operations that make files or change what they hold.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "tests/torture/workload/operations.h"

namespace kddc::torture {
namespace {

// Without waiting for the other end of a FIFO.
constexpr int kOpen = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
constexpr std::uint64_t kMostBytes = 20000;
constexpr off_t kFarOffset = off_t{1} << 33;  // a size that needs more than 32 bits

// Not everything can be opened: a link, a socket, a node without a driver.
UniqueFd openExisting(Worker& w, int flags = 0) {
  UniqueFd fd;
  for (int tries = 0; tries < 3 && !fd; ++tries) {
    const Place at = w.existing(Kind::kOther, Kept::kToo);
    fd.reset(openat(at.folder.get(), at.name.c_str(), kOpen | flags));
  }
  return fd;
}

off_t someOffset(Worker& w) {
  return w.random.oneIn(30) ? kFarOffset : static_cast<off_t>(w.random.below(kMostBytes));
}

void putBytes(Worker& w, int fd) {
  const std::string bytes(1 + w.random.below(3000), 'b');
  if (pwrite(fd, bytes.data(), bytes.size(), someOffset(w)) < 0) return;
}

void create(Worker& w) {
  static constexpr int kWays[] = {0, O_EXCL, O_TRUNC, O_APPEND};
  const Place at = w.place();
  const mode_t mode = 0600 | static_cast<mode_t>(w.random.below(0200));
  const int flags = kOpen | O_CREAT | w.random.pick(kWays);
  UniqueFd fd(openat(at.folder.get(), at.name.c_str(), flags, mode));
  if (w.random.oneIn(2)) putBytes(w, fd.get());
  w.release(std::move(fd));
}

void makeNode(Worker& w) {
  struct Node {
    mode_t type;
    dev_t device;
  };
  // The null device, and a number that no driver has: an open must not wake one.
  static const Node kNodes[] = {
      {S_IFIFO, 0}, {S_IFREG, 0}, {S_IFCHR, makedev(1, 3)}, {S_IFBLK, makedev(240, 1)}};
  const Node& node = w.options().noDevices ? kNodes[w.random.below(2)] : w.random.pick(kNodes);
  const Place at = w.place();
  mknodat(at.folder.get(), at.name.c_str(), node.type | 0640, node.device);
}

void bindSocket(Worker& w) {
  const Place at = w.place();
  const std::string path = pathOf(at.folder.get()) + "/" + at.name;
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return;
}

// Short texts live in the inode on most file systems, long ones in a block. None leads anywhere
// but to a neighbour.
void makeSymlink(Worker& w) {
  const std::uint64_t longest = w.random.oneIn(3) ? 1000 : 50;
  const std::string text = "n" + std::string(w.random.below(longest), '1');
  const Place at = w.place();
  if (symlinkat(text.c_str(), at.folder.get(), at.name.c_str()) != 0) return;
}

void write(Worker& w) {
  UniqueFd fd = openExisting(w);
  putBytes(w, fd.get());
  w.release(std::move(fd));
}

void append(Worker& w) {
  const UniqueFd fd = openExisting(w, O_APPEND);
  if (::write(fd.get(), "appended", 8) < 0) return;
}

void truncate(Worker& w) {
  const UniqueFd fd = openExisting(w);
  if (ftruncate(fd.get(), someOffset(w)) != 0) return;
}

void openAndTruncate(Worker& w) {
  w.release(openExisting(w, O_TRUNC));
}

void allocate(Worker& w) {
  static constexpr int kModes[] = {
      0, FALLOC_FL_KEEP_SIZE, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, FALLOC_FL_ZERO_RANGE};
  const UniqueFd fd = openExisting(w);
  const auto length = static_cast<off_t>(1 + w.random.below(kMostBytes));
  if (fallocate(fd.get(), w.random.pick(kModes), 0, length) != 0) return;
}

void copyByKernel(Worker& w) {
  const UniqueFd from = openExisting(w), to = openExisting(w);
  const std::size_t length = 1 + w.random.below(kMostBytes);
  const bool range = w.random.oneIn(2);
  const ssize_t copied = range ? copy_file_range(from.get(), nullptr, to.get(), nullptr, length, 0)
                               : sendfile(to.get(), from.get(), nullptr, length);
  if (copied < 0) return;
}

// The last that the kernel tells of a store is the close of the file, after the last unmapping.
void storeMapped(Worker& w) {
  constexpr std::size_t kPage = 4096;
  UniqueFd fd = openExisting(w);
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return;
  if (ftruncate(fd.get(), kPage) != 0) return;
  void* page = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (page == MAP_FAILED) return;
  if (w.random.oneIn(2)) fd.reset();
  // Not by a plain store: another process may have cut the file off meanwhile.
  const UniqueFd zero(open("/dev/zero", O_RDONLY | O_CLOEXEC));
  if (read(zero.get(), page, 100) < 0) errno = 0;
  munmap(page, kPage);
}

void makeUnnamed(Worker& w) {
  const Place at = w.place();
  UniqueFd fd(openat(at.folder.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0644));
  putBytes(w, fd.get());
  if (!w.random.oneIn(4))
    linkat(AT_FDCWD, pathOf(fd.get()).c_str(), at.folder.get(), at.name.c_str(), AT_SYMLINK_FOLLOW);
  if (w.random.oneIn(2)) putBytes(w, fd.get());
  w.release(std::move(fd));
}

void useHeld(Worker& w) {
  const int fd = w.held();
  switch (w.random.below(4)) {
    case 0:
      if (ftruncate(fd, someOffset(w)) != 0) return;
      break;
    case 1:
      if (fchmod(fd, 0600 | static_cast<mode_t>(w.random.below(0200))) != 0) return;
      break;
    default:
      putBytes(w, fd);
  }
}

void closeHeld(Worker& w) {
  w.closeOne();
}

}  // namespace

std::span<const Operation> contentOperations() {
  static constexpr Operation kOperations[] = {
      {60, create},   {12, makeNode},     {5, bindSocket},  {14, makeSymlink},
      {25, write},    {10, append},       {12, truncate},   {8, openAndTruncate},
      {10, allocate}, {10, copyByKernel}, {8, storeMapped}, {10, makeUnnamed},
      {15, useHeld},  {8, closeHeld},
  };
  return kOperations;
}

}  // namespace kddc::torture
