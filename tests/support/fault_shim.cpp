// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Stands between a program and the C library (LD_PRELOAD) and lets one system call fail: the
// KDDC_FAULT_CALL-th of those that concern the folder KDDC_FAULT_FOLDER or something below it, with
// the error number KDDC_FAULT_ERROR. With the number 0 only reads and writes count, and the
// chosen one moves half of the bytes it was asked to. The name of the call that failed goes to the
// file KDDC_FAULT_REPORT; there is no such file when the program made fewer calls.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

std::string setting(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

struct Plan {
  const std::string folder = setting("KDDC_FAULT_FOLDER"), report = setting("KDDC_FAULT_REPORT");
  const int call = std::atoi(setting("KDDC_FAULT_CALL").c_str());
  const int error = std::atoi(setting("KDDC_FAULT_ERROR").c_str());
  std::atomic<int> calls = 0;

  bool covers(std::string_view path) const {
    return !folder.empty() && path.starts_with(folder) &&
           (path.size() == folder.size() || path[folder.size()] == '/');
  }
};

// Made at the first call, which comes before the constructors of the program.
Plan& plan() {
  static Plan only;
  return only;
}

// The next function of that name behind this library.
template <class Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::string pathOf(int fd) {
  char path[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = readlink(link.c_str(), path, sizeof path);
  return {path, length > 0 ? static_cast<std::size_t>(length) : 0};
}
std::string pathOf(int folder, const char* name) {
  return folder == AT_FDCWD || name[0] == '/' ? name : pathOf(folder) + "/" + name;
}

// Whether this is the call that was chosen; says so in the report.
bool isChosen(const char* name, std::string_view path) {
  const int error = errno;
  const bool chosen = plan().covers(path) && ++plan().calls == plan().call;
  if (chosen) {
    const long file =
        syscall(SYS_openat, AT_FDCWD, plan().report.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    syscall(SYS_write, file, name, std::string_view(name).size());
    syscall(SYS_close, file);
  }
  errno = error;
  return chosen;
}

// Whether this call must fail; errno is set then.
bool fails(const char* name, std::string_view path) {
  if (plan().error == 0 || !isChosen(name, path)) return false;
  errno = plan().error;
  return true;
}

template <class Function, class... Arguments>
int call(const char* name, std::string_view path, Arguments... arguments) {
  return fails(name, path) ? -1 : real<Function>(name)(arguments...);
}

template <class Buffer>
ssize_t transfer(const char* name, int fd, Buffer* buffer, std::size_t count) {
  const auto function = real<ssize_t(int, Buffer*, std::size_t)>(name);
  const std::string path = pathOf(fd);
  if (fails(name, path)) return -1;
  const bool cut = plan().error == 0 && count > 1 && isChosen(name, path);
  return function(fd, buffer, cut ? count / 2 : count);
}

mode_t modeOf(int flags, va_list arguments) {
  return (flags & O_CREAT) != 0 ? static_cast<mode_t>(va_arg(arguments, int)) : 0;
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return call<int(const char*, int, ...)>("open", path, path, flags, mode);
}
int openat(int folder, const char* name, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return call<int(int, const char*, int, ...)>("openat", pathOf(folder, name), folder, name, flags,
                                               mode);
}
ssize_t read(int fd, void* buffer, std::size_t count) {
  return transfer("read", fd, buffer, count);
}
ssize_t write(int fd, const void* buffer, std::size_t count) {
  return transfer("write", fd, buffer, count);
}
int fsync(int fd) {
  return call<int(int)>("fsync", pathOf(fd), fd);
}
int ftruncate(int fd, off_t size) noexcept {
  return call<int(int, off_t)>("ftruncate", pathOf(fd), fd, size);
}
int fstat(int fd, struct stat* status) noexcept {
  return call<int(int, struct stat*)>("fstat", pathOf(fd), fd, status);
}
int lstat(const char* path, struct stat* status) noexcept {
  return call<int(const char*, struct stat*)>("lstat", path, path, status);
}
int fstatat(int folder, const char* name, struct stat* status, int flags) noexcept {
  return call<int(int, const char*, struct stat*, int)>("fstatat", pathOf(folder, name), folder,
                                                        name, status, flags);
}
int access(const char* path, int mode) noexcept {
  return call<int(const char*, int)>("access", path, path, mode);
}
int mkdir(const char* path, mode_t mode) noexcept {
  return call<int(const char*, mode_t)>("mkdir", path, path, mode);
}
int rmdir(const char* path) noexcept {
  return call<int(const char*)>("rmdir", path, path);
}
int unlink(const char* path) noexcept {
  return call<int(const char*)>("unlink", path, path);
}
int unlinkat(int folder, const char* name, int flags) noexcept {
  return call<int(int, const char*, int)>("unlinkat", pathOf(folder, name), folder, name, flags);
}
int rename(const char* from, const char* to) noexcept {
  return call<int(const char*, const char*)>("rename", from, from, to);
}
int renameat(int from, const char* name, int to, const char* newName) noexcept {
  return call<int(int, const char*, int, const char*)>("renameat", pathOf(from, name), from, name,
                                                       to, newName);
}
DIR* opendir(const char* path) {
  return fails("opendir", path) ? nullptr : real<DIR*(const char*)>("opendir")(path);
}
DIR* fdopendir(int fd) {
  return fails("fdopendir", pathOf(fd)) ? nullptr : real<DIR*(int)>("fdopendir")(fd);
}
dirent* readdir(DIR* folder) {
  return fails("readdir", pathOf(dirfd(folder))) ? nullptr : real<dirent*(DIR*)>("readdir")(folder);
}

}  // extern "C"
