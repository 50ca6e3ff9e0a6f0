// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Memory is bounded by the depth of the tree and the sub-folders that wait, not by the entries:
// they are handed on while the kernel's answers are still in the buffer.
#include "agent/engine/walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <limits>
#include <memory>
#include <utility>

#include "agent/engine/helping_hand.h"
#include "agent/engine/quiet_folder.h"
#include "agent/errors.h"
#include "platform/identity.h"
#include "platform/stub_probe.h"
#include "records/fsf_fid.h"

namespace kddc {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kEntryFlags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
constexpr std::size_t kReadBytes = 256 * 1024;
constexpr std::size_t kWorthHelp = 32;        // names: to wake the helper costs as much as a few
constexpr std::size_t kPiece = 8;             // names that one of two takes at once
constexpr std::size_t kStepsUpAtOnce = 1000;  // "../" a thousand times is a path the kernel takes

// What an entry that is gone, or is not any more what it was, answers.
bool meansVanished(int error) {
  return error == ENOENT || error == ESTALE || error == ENOTDIR || error == ELOOP;
}

bool isDots(const char* name) {
  return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

// The sub-folders of a folder that are still to be visited, the last one first.
class PendingFolders {
 public:
  struct Folder {
    std::string name;
    fsf_fid fid;
    std::uint64_t number;
  };

  bool empty() const { return folders_.empty(); }
  // Folders of one parent are reported, and so numbered, one right after the other.
  void add(std::string_view name, const fsf_fid& fid, std::uint64_t number) {
    if (folders_.empty()) first_ = number;
    folders_.push_back({fid, names_.size()});
    names_ += name;
  }
  Folder take() {
    const Place last = folders_.back();
    folders_.pop_back();
    Folder folder{names_.substr(last.begin), last.fid, first_ + folders_.size()};
    names_.resize(last.begin);
    return folder;
  }

 private:
  struct Place {
    fsf_fid fid;
    std::size_t begin;
  };
  std::vector<Place> folders_;
  std::string names_;  // without separators
  std::uint64_t first_ = 0;
};

struct Frame {
  UniqueFd fd;  // none while it was given up
  std::string name;
  fsf_fid fid;
  std::uint64_t number;
  PendingFolders pending;
};

// What a name was found to stand for.
struct Found {
  int error = 0;  // an errno, 0 when it was found
  Identity identity;
  bool isStub = false;
};

class TreeWalk {
 public:
  TreeWalk(const std::string& rootName, const WalkOptions& options, const EntrySink& sink);
  WalkCounts run(UniqueFd root);

 private:
  void enter(UniqueFd fd, PendingFolders::Folder folder);
  void readFolder(Frame& frame);
  bool meetByName(Frame& frame);
  void look(int folder, std::size_t begin, std::size_t end, StubProbe& stubs);
  void lookWithHelp(int folder);
  void meetByDescriptor(Frame& frame, const char* name);
  void accept(Frame& frame, const char* name, const Found& found);
  bool isLeftOut(const Frame& frame, const char* name, const Identity& identity);

  void leave();
  void visitNext();
  void lose(const PendingFolders::Folder& folder);
  UniqueFd openPending(Frame& frame, const PendingFolders::Folder& folder);

  UniqueFd openAt(int folder, const char* name, int flags);
  bool giveUpOne();
  bool reopen(std::size_t index);
  UniqueFd climbTo(std::size_t index);
  UniqueFd descendTo(std::size_t index);
  bool isFolder(int fd, const fsf_fid& fid) const;

  [[noreturn]] void fail(const Frame& frame, const std::string& name, int error) const;

  const std::string& rootName_;
  const WalkOptions& options_;
  const EntrySink& sink_;
  StubProbe stubs_;
  std::size_t maxOpen_;

  std::vector<Frame> stack_;
  std::size_t open_ = 0;  // frames that hold a descriptor
  // The descriptor of the folder left last, from where the way up begins, and its depth.
  UniqueFd last_;
  std::size_t lastDepth_ = 0;
  dev_t device_ = 0;
  std::uint64_t folders_ = 0;
  WalkCounts counts_;
  std::vector<char> buffer_ = std::vector<char>(kReadBytes);
  std::vector<const char*> names_;  // those in the buffer
  std::vector<Found> found_;        // what they stand for
  std::unique_ptr<HelpingHand> helper_;
};

// A quarter of what the process may open: databases, log and the rest need some as well.
std::size_t descriptorsAllowed(std::size_t wanted) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return wanted;
  return std::clamp<std::size_t>(limit.rlim_cur / 4, 4, std::max<std::size_t>(wanted, 4));
}

TreeWalk::TreeWalk(const std::string& rootName, const WalkOptions& options, const EntrySink& sink)
    : rootName_(rootName),
      options_(options),
      sink_(sink),
      stubs_(options.stubAttribute),
      maxOpen_(descriptorsAllowed(options.openFolders)),
      helper_(options.helped ? std::make_unique<HelpingHand>() : nullptr) {}

WalkCounts TreeWalk::run(UniqueFd root) {
  Identity identity;
  if (const int result = identityOf(root.get(), identity); result < 0)
    throw systemFailure("cannot look at " + rootName_, -result);
  device_ = identity.st.st_dev;
  sink_({identity.st, identity.fid, 0, false, rootName_});
  ++counts_.entries;
  enter(std::move(root), {rootName_, identity.fid, ++folders_});
  while (!stack_.empty()) {
    if (stack_.back().pending.empty())
      leave();
    else
      visitNext();
  }
  return counts_;
}

void TreeWalk::enter(UniqueFd fd, PendingFolders::Folder folder) {
  stack_.push_back({std::move(fd), std::move(folder.name), folder.fid, folder.number, {}});
  ++open_;
  last_.reset();  // from where a way up began; now it goes down
  while (open_ > maxOpen_ && giveUpOne()) {
  }
  readFolder(stack_.back());
  if (options_.folderRead) options_.folderRead(stack_.back().number);
}

void TreeWalk::readFolder(Frame& frame) {
  for (;;) {
    const ssize_t length = getdents64(frame.fd.get(), buffer_.data(), buffer_.size());
    if (length == 0 || (length < 0 && meansVanished(errno))) return;
    if (length < 0) fail(frame, "", errno);
    names_.clear();
    for (ssize_t at = 0; at < length;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer_.data() + at);
      at += entry->d_reclen;
      if (!isDots(entry->d_name)) names_.push_back(entry->d_name);
    }
    if (meetByName(frame)) continue;
    for (const char* name : names_) meetByDescriptor(frame, name);
  }
}

// Two calls by name cost half of what opening each entry does. That they spoke of the same file is
// known when no name in the folder changed meanwhile; else nothing is taken from them.
bool TreeWalk::meetByName(Frame& frame) {
  const int folder = frame.fd.get();
  const QuietFolder quiet(folder);
  if (!quiet.atFirst()) return false;
  found_.resize(names_.size());
  if (helper_ && names_.size() >= kWorthHelp)
    lookWithHelp(folder);
  else
    look(folder, 0, names_.size(), stubs_);
  if (!quiet.still()) return false;
  for (std::size_t i = 0; i < names_.size(); ++i) accept(frame, names_[i], found_[i]);
  return true;
}

void TreeWalk::look(int folder, std::size_t begin, std::size_t end, StubProbe& stubs) {
  for (std::size_t i = begin; i < end; ++i) {
    Found& found = found_[i];
    found.error = -identityOf(folder, names_[i], found.identity);
    found.isStub =
        found.error == 0 && S_ISREG(found.identity.st.st_mode) && stubs.isStub(folder, names_[i]);
  }
}

void TreeWalk::lookWithHelp(int folder) {
  std::atomic<std::size_t> next = 0;
  helper_->share([&] {
    StubProbe stubs = stubs_;  // learns, so each thread has its own
    const std::size_t all = names_.size();
    for (std::size_t begin; (begin = next.fetch_add(kPiece)) < all;)
      look(folder, begin, std::min(begin + kPiece, all), stubs);
  });
}

void TreeWalk::meetByDescriptor(Frame& frame, const char* name) {
  const UniqueFd fd = openAt(frame.fd.get(), name, kEntryFlags);
  Found found;
  found.error = fd ? -identityOf(fd.get(), found.identity) : errno;
  found.isStub = found.error == 0 && S_ISREG(found.identity.st.st_mode) && stubs_.isStub(fd.get());
  accept(frame, name, found);
}

void TreeWalk::accept(Frame& frame, const char* name, const Found& found) {
  if (found.error != 0 && !meansVanished(found.error)) fail(frame, name, found.error);
  if (found.error != 0 || isLeftOut(frame, name, found.identity)) return;
  sink_({found.identity.st, found.identity.fid, frame.number, found.isStub, name});
  ++counts_.entries;
  if (S_ISDIR(found.identity.st.st_mode)) frame.pending.add(name, found.identity.fid, ++folders_);
}

// A mounted file system has identifiers of its own, and a folder mounted a second time would be
// found twice. Other device numbers are a subvolume's; an overlay gives them to plain files too.
bool TreeWalk::isLeftOut(const Frame& frame, const char* name, const Identity& identity) {
  const bool isFolder = S_ISDIR(identity.st.st_mode);
  if (identity.isMountRoot || (isFolder && identity.st.st_dev != device_) ||
      findCovered(options_.covered, frame.fid, name)) {
    ++counts_.mountsLeftOut;
    return true;
  }
  const FileKey key{identity.st.st_dev, identity.st.st_ino};
  return isFolder && std::ranges::find(options_.leaveOut, key) != options_.leaveOut.end();
}

void TreeWalk::leave() {
  Frame& frame = stack_.back();
  if (frame.fd) {
    last_ = std::move(frame.fd);
    lastDepth_ = stack_.size() - 1;
    --open_;
  }
  stack_.pop_back();
}

void TreeWalk::lose(const PendingFolders::Folder& folder) {
  ++counts_.lostFolders;
  if (options_.folderLost) options_.folderLost(folder.fid);
}

void TreeWalk::visitNext() {
  Frame& frame = stack_.back();
  if (!frame.fd && !reopen(stack_.size() - 1)) {
    while (!frame.pending.empty()) lose(frame.pending.take());
    return;
  }
  PendingFolders::Folder folder = frame.pending.take();
  UniqueFd fd = openPending(frame, folder);
  if (!fd) return lose(folder);
  // The root's stays: it is where a way down begins when the way up is lost.
  if (frame.pending.empty() && stack_.size() > 1) {
    frame.fd.reset();
    --open_;
  }
  enter(std::move(fd), std::move(folder));
}

UniqueFd TreeWalk::openPending(Frame& frame, const PendingFolders::Folder& folder) {
  UniqueFd fd = openAt(frame.fd.get(), folder.name.c_str(), kFolderFlags);
  if (!fd && !meansVanished(errno)) fail(frame, folder.name, errno);
  if (fd && !isFolder(fd.get(), folder.fid)) fd.reset();
  return fd;
}

bool TreeWalk::isFolder(int fd, const fsf_fid& fid) const {
  Identity identity;
  return identityOf(fd, identity) == 0 && identity.st.st_dev == device_ && identity.fid == fid;
}

// openat; when the process has no descriptor left, one of ours is given up for it.
UniqueFd TreeWalk::openAt(int folder, const char* name, int flags) {
  for (;;) {
    UniqueFd fd(openat(folder, name, flags));
    if (fd || (errno != EMFILE && errno != ENFILE)) return fd;
    const int error = errno;
    if (!giveUpOne()) {
      errno = error;
      return fd;
    }
  }
}

// Closes the folder nearest the root, which is needed last; never the root and never the top.
bool TreeWalk::giveUpOne() {
  for (std::size_t i = 1; i + 1 < stack_.size(); ++i) {
    if (!stack_[i].fd) continue;
    stack_[i].fd.reset();
    --open_;
    return true;
  }
  return false;
}

bool TreeWalk::reopen(std::size_t index) {
  UniqueFd fd = climbTo(index);
  if (!fd) fd = descendTo(index);
  if (!fd) return false;
  stack_[index].fd = std::move(fd);
  ++open_;
  return true;
}

UniqueFd TreeWalk::climbTo(std::size_t index) {
  if (!last_ || lastDepth_ <= index) return {};
  int from = last_.get();
  UniqueFd fd;
  for (std::size_t left = lastDepth_ - index; left > 0;) {
    const std::size_t steps = std::min(left, kStepsUpAtOnce);
    std::string path;
    for (std::size_t i = 0; i < steps; ++i) path += "../";
    fd = openAt(from, path.c_str(), kFolderFlags);
    if (!fd) return {};
    from = fd.get();
    left -= steps;
  }
  return isFolder(fd.get(), stack_[index].fid) ? std::move(fd) : UniqueFd();
}

UniqueFd TreeWalk::descendTo(std::size_t index) {
  UniqueFd fd = openAt(stack_[0].fd.get(), ".", kFolderFlags);
  for (std::size_t i = 1; fd && i <= index; ++i)
    fd = openAt(fd.get(), stack_[i].name.c_str(), kFolderFlags);
  return fd && isFolder(fd.get(), stack_[index].fid) ? std::move(fd) : UniqueFd();
}

void TreeWalk::fail(const Frame& frame, const std::string& name, int error) const {
  std::string path;
  for (const Frame& above : stack_) {
    path += above.name;
    if (!path.ends_with('/')) path += '/';
    if (&above == &frame) break;
  }
  throw systemFailure("cannot read " + path + name, error);
}

}  // namespace

WalkCounts walkTree(UniqueFd root, const std::string& rootName, const WalkOptions& options,
                    const EntrySink& sink) {
  return TreeWalk(rootName, options, sink).run(std::move(root));
}

}  // namespace kddc
