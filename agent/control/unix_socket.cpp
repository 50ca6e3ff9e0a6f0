// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// An address holds 108 bytes, so paths go by way of a descriptor: /proc/self/fd/<folder>/<name> to
// make a socket, /proc/self/fd/<socket> to connect to the very file that was looked at.
#include "agent/control/unix_socket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "agent/errors.h"
#include "agent/own_folder.h"

namespace kddc {
namespace {

using std::chrono::milliseconds;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path)
    throw Failure("cannot name the socket " + path + ": its last part is too long");
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

template <class Call>  // connect or bind
int onAddress(Call&& call, const UniqueFd& socket, const std::string& path) {
  const sockaddr_un address = addressOf(path);
  return call(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

UniqueFd newSocket(int flags) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  if (!fd) throw systemFailure("cannot make a socket", errno);
  return fd;
}

std::string through(const UniqueFd& fd) {
  return fmt::format("/proc/self/fd/{}", fd.get());
}

// Private, and not just our own: sockets of others among ours would be taken for answers.
UniqueFd openPrivateFolder(const std::string& path) {
  makeFolders(path);
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0) throw systemFailure("cannot use the folder " + path, errno);
  if (st.st_uid != geteuid())
    throw Failure(
        fmt::format("the folder {0} belongs to another user; take it over with: chown {1} {0}",
                    path, geteuid()));
  if ((st.st_mode & 077) != 0)
    throw Failure(
        fmt::format("the folder {0} is open to others; close it with: chmod 700 {0}", path));
  return fd;
}

// The file, without following a link; none when there is no such file.
UniqueFd findFile(const std::string& path, struct stat& st) {
  UniqueFd file(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!file && (errno == ENOENT || errno == ENOTDIR)) return {};
  if (!file || fstat(file.get(), &st) != 0) throw systemFailure("cannot use " + path, errno);
  return file;
}

// A queue of connections that is full makes connect wait, as a socket waits to send.
int connectWithin(const UniqueFd& socket, const std::string& path, milliseconds patience) {
  const auto wait = std::max(patience, milliseconds(1));
  const timeval limit{wait.count() / 1000, wait.count() % 1000 * 1000};
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  int result;
  do result = onAddress(::connect, socket, path);
  while (result != 0 && errno == EINTR);
  return result;
}

// A crash leaves the file of a socket; only a connection tells whether somebody still listens.
void removeLeftover(const UniqueFd& folder, const std::string& name, const std::string& path) {
  const Connection other = connectTo(path, milliseconds(1));
  if (other.listener == Listener::kBusy)
    throw Failure("another process, busy just now, listens on " + path);
  if (other.listener == Listener::kFound)
    throw Failure(fmt::format("process {} listens on {} already; stop it first",
                              peerOf(other.socket).process, path));
  if (unlinkat(folder.get(), name.c_str(), 0) != 0 && errno != ENOENT)
    throw systemFailure("cannot replace " + path, errno);
}

// Who may put sockets into the folder may answer for it; nobody else is believed.
void requireTrusted(const UniqueFd& socket, const std::string& path) {
  struct stat folder;
  const uid_t user = peerOf(socket).user;
  if (user == 0 || user == geteuid()) return;
  if (stat(std::filesystem::path(path).parent_path().c_str(), &folder) == 0 &&
      user == folder.st_uid)
    return;
  throw Failure(fmt::format("user {} answers on {}, who may not; remove it", user, path));
}

}  // namespace

Peer peerOf(const UniqueFd& socket) {
  ucred credentials{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
  socklen_t size = sizeof credentials;
  getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size);
  return {credentials.pid, credentials.uid};
}

ListeningSocket::ListeningSocket(const std::string& path)
    : name_(std::filesystem::path(path).filename().string()),
      folder_(openPrivateFolder(std::filesystem::path(path).parent_path().string())),
      socket_(newSocket(SOCK_NONBLOCK)) {
  // Two processes that find the same leftover come one after the other.
  const auto locked = [&](int how) { return flock(folder_.get(), how) == 0; };
  if (!locked(LOCK_EX)) throw systemFailure("cannot lock the folder of " + path, errno);
  removeLeftover(folder_, name_, path);
  // The file gets the mode that the socket has; nobody can be in time for a wider one.
  if (fchmod(socket_.get(), 0600) != 0 ||
      onAddress(::bind, socket_, through(folder_) + "/" + name_) != 0)
    throw systemFailure("cannot make the socket " + path, errno);
  if (listen(socket_.get(), SOMAXCONN) != 0) throw systemFailure("cannot listen on " + path, errno);
  locked(LOCK_UN);
}

// The name goes first: who comes from now on finds nobody, not somebody who does not answer.
ListeningSocket::~ListeningSocket() {
  if (folder_) unlinkat(folder_.get(), name_.c_str(), 0);
}

UniqueFd ListeningSocket::accept() const {
  return UniqueFd(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

Connection connectTo(const std::string& path, milliseconds patience) {
  struct stat st;
  const UniqueFd file = findFile(path, st);
  if (!file) return {};
  if (!S_ISSOCK(st.st_mode)) throw Failure(path + " is no socket; remove it");
  UniqueFd socket = newSocket(0);
  if (connectWithin(socket, through(file), patience) == 0) {
    requireTrusted(socket, path);
    return {Listener::kFound, std::move(socket)};
  }
  if (errno == ECONNREFUSED) return {};
  if (errno == EAGAIN) return {Listener::kBusy, {}};
  throw systemFailure("cannot connect to " + path, errno);
}

}  // namespace kddc
