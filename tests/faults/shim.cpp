// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Stands between the program and the C library (LD_PRELOAD) and does what the control page, the
// file $KDDC_SHIM_CONTROL, says: kills the process at a call, lets calls fail, sets the clock.
// Calls of all threads are counted together, those that SQLite makes too.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <type_traits>

#include "tests/faults/shim_control.h"

// The allocator behind ours.
extern "C" {
void* __libc_malloc(std::size_t);               // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t, std::size_t);  // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void*, std::size_t);       // NOLINT(bugprone-reserved-identifier)
}

namespace {

using kddc::faults::Fault;
using kddc::faults::ShimControl;

ShimControl* control = nullptr;

// By system calls: nothing of ours may be in the way.
[[gnu::constructor]] void mapControl() {
  const char* path = std::getenv("KDDC_SHIM_CONTROL");
  const long fd = path ? syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC) : -1;
  if (fd < 0) return;
  void* page = mmap(nullptr, sizeof(ShimControl), PROT_READ | PROT_WRITE, MAP_SHARED,
                    static_cast<int>(fd), 0);
  syscall(SYS_close, fd);
  if (page != MAP_FAILED) control = static_cast<ShimControl*>(page);
}

struct Path {
  char text[PATH_MAX];
  std::size_t length = 0;

  explicit Path(int fd) {
    char link[40];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const long bytes = syscall(SYS_readlinkat, AT_FDCWD, link, text, sizeof text);
    length = bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
  }
  std::string_view view() const { return {text, length}; }
};

bool covers(std::string_view path) {
  return path.starts_with(static_cast<const char*>(control->folder));
}
std::string_view pathOf(const Path& path) {
  return path.view();
}
std::string_view pathOf(std::string_view path) {
  return path;
}

// What befalls the call at hand.
template <class Where>
Fault befalls(unsigned kind, const Where& where) {
  if (!control || (control->calls & kind) == 0) return Fault::kNone;
  const int error = errno;
  const std::conditional_t<std::is_same_v<Where, int>, Path, std::string_view> path(where);
  errno = error;
  if (!covers(pathOf(path))) return Fault::kNone;
  const long past = ++control->counted - control->first;
  if (past < 0 || past % control->every != 0 || control->hitsLeft-- <= 0) return Fault::kNone;
  ++control->hits;
  const std::size_t length = pathOf(path).copy(control->lastHit, ShimControl::kMostPath - 1);
  control->lastHit[length] = 0;
  return control->fault;
}

[[noreturn]] void die() {
  for (;;) kill(getpid(), SIGKILL);
}

void hold() {
  const int error = errno;
  while (control->fault == Fault::kHold) usleep(1000);
  errno = error;
}

template <class Where, class Call>
auto guarded(unsigned kind, const Where& where, Call call) -> decltype(call()) {
  const Fault fault = befalls(kind, where);
  if (fault == Fault::kKill || fault == Fault::kTear) die();
  if (fault == Fault::kHold) hold();
  if (fault != Fault::kFail) return call();
  errno = control->error;
  return -1;
}

// `move` moves so many bytes.
template <class Move>
ssize_t transfer(unsigned kind, int fd, std::size_t count, Move move) {
  const Fault fault = befalls(kind, fd);
  if (fault == Fault::kTear) move(count / 2);
  if (fault == Fault::kKill || fault == Fault::kTear) die();
  if (fault != Fault::kFail) return move(fault == Fault::kShorten && count > 1 ? count / 2 : count);
  errno = control->error;
  return -1;
}

bool isRefused() {
  if (befalls(kddc::faults::kAllocations, std::string_view()) != Fault::kFail) return false;
  errno = ENOMEM;
  return true;
}

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

mode_t modeOf(int flags, va_list arguments) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE
             ? static_cast<mode_t>(va_arg(arguments, int))
             : 0;
}

int openNext(int folder, const char* path, int flags, mode_t mode) {
  return guarded(kddc::faults::kOpens, std::string_view(path),
                 [&] { return static_cast<int>(syscall(SYS_openat, folder, path, flags, mode)); });
}

bool isReal(clockid_t clock) {
  return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}
long long clockStep() {
  return control ? control->clockStep.load() : 0;
}

}  // namespace

extern "C" {

ssize_t read(int fd, void* buffer, std::size_t count) {
  return transfer(kddc::faults::kReads, fd, count,
                  [&](std::size_t bytes) { return syscall(SYS_read, fd, buffer, bytes); });
}
ssize_t pread(int fd, void* buffer, std::size_t count, off_t at) {
  return transfer(kddc::faults::kReads, fd, count,
                  [&](std::size_t bytes) { return syscall(SYS_pread64, fd, buffer, bytes, at); });
}
ssize_t pread64(int fd, void* buffer, std::size_t count, off64_t at) {
  return pread(fd, buffer, count, at);
}
ssize_t write(int fd, const void* buffer, std::size_t count) {
  return transfer(kddc::faults::kWrites, fd, count,
                  [&](std::size_t bytes) { return syscall(SYS_write, fd, buffer, bytes); });
}
ssize_t pwrite(int fd, const void* buffer, std::size_t count, off_t at) {
  return transfer(kddc::faults::kWrites, fd, count,
                  [&](std::size_t bytes) { return syscall(SYS_pwrite64, fd, buffer, bytes, at); });
}
ssize_t pwrite64(int fd, const void* buffer, std::size_t count, off64_t at) {
  return pwrite(fd, buffer, count, at);
}
int fsync(int fd) {
  return guarded(kddc::faults::kSyncs, fd,
                 [&] { return static_cast<int>(syscall(SYS_fsync, fd)); });
}
int fdatasync(int fd) {
  return guarded(kddc::faults::kSyncs, fd,
                 [&] { return static_cast<int>(syscall(SYS_fdatasync, fd)); });
}
int ftruncate(int fd, off_t size) noexcept {
  return guarded(kddc::faults::kTruncations, fd,
                 [&] { return static_cast<int>(syscall(SYS_ftruncate, fd, size)); });
}
int ftruncate64(int fd, off64_t size) noexcept {
  return ftruncate(fd, size);
}
int rename(const char* from, const char* to) noexcept {
  return guarded(kddc::faults::kRenames, std::string_view(from), [&] {
    return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
  });
}
int renameat2(int folder, const char* from, int other, const char* to, unsigned flags) noexcept {
  return guarded(kddc::faults::kRenames, std::string_view(from), [&] {
    return static_cast<int>(syscall(SYS_renameat2, folder, from, other, to, flags));
  });
}
int renameat(int folder, const char* from, int other, const char* to) noexcept {
  return renameat2(folder, from, other, to, 0);
}
int unlink(const char* path) noexcept {
  return guarded(kddc::faults::kUnlinks, std::string_view(path),
                 [&] { return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0)); });
}
int unlinkat(int folder, const char* name, int flags) noexcept {
  const auto call = [&] { return static_cast<int>(syscall(SYS_unlinkat, folder, name, flags)); };
  if (folder == AT_FDCWD) return guarded(kddc::faults::kUnlinks, std::string_view(name), call);
  return guarded(kddc::faults::kUnlinks, folder, call);
}

int name_to_handle_at(int folder, const char* name, file_handle* handle, int* mount,
                      int flags) noexcept {
  return guarded(kddc::faults::kLooks, std::string_view(name), [&] {
    return static_cast<int>(syscall(SYS_name_to_handle_at, folder, name, handle, mount, flags));
  });
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return openNext(AT_FDCWD, path, flags, mode);
}
int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return openNext(AT_FDCWD, path, flags, mode);
}

void* malloc(std::size_t size) noexcept {
  return isRefused() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  return isRefused() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) noexcept {
  return isRefused() ? nullptr : __libc_realloc(memory, size);
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static const auto real = next<int(clockid_t, timespec*)>("clock_gettime");
  const int result = real(clock, time);
  if (result == 0 && isReal(clock)) time->tv_sec += clockStep();
  return result;
}
int gettimeofday(timeval* time, void* zone) noexcept {
  static const auto real = next<int(timeval*, void*)>("gettimeofday");
  const int result = real(time, zone);
  if (result == 0) time->tv_sec += clockStep();
  return result;
}
std::time_t time(std::time_t* out) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (out) *out = now.tv_sec;
  return now.tv_sec;
}
int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* until) {
  static const auto real = next<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)>(
      "pthread_cond_clockwait");
  if (control && isReal(clock)) ++control->realClockWaits;
  return real(condition, mutex, clock, until);
}

}  // extern "C"
