// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/stub_probe.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "platform/stub_attribute.h"
#include "platform/unique_fd.h"

namespace kddc {
namespace {

// getxattrat(2) came with Linux 6.13 under one number for all architectures but alpha; the C
// library and the kernel's headers need not know it yet.
constexpr long kGetxattrat = 464;

struct XattrArguments {
  alignas(8) std::uint64_t value = 0;
  std::uint32_t size = 0;
  std::uint32_t flags = 0;
};

}  // namespace

bool StubProbe::isStub(int fd) const {
  return carriesStubAttribute(fd, attribute_) == 1;
}

bool StubProbe::isStub(int folder, const char* name) {
  if (!mayCarry(folder, name)) return false;
  const UniqueFd fd(openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  return fd && isStub(fd.get());
}

bool StubProbe::mayCarry(int folder, const char* name) {
  if (!canAskByName_) return true;
  XattrArguments arguments;
  const long result = syscall(kGetxattrat, folder, name, AT_SYMLINK_NOFOLLOW, attribute_.c_str(),
                              &arguments, sizeof arguments);
  // A filter of system calls says EPERM of a number that it does not know.
  if (result < 0 && (errno == ENOSYS || errno == EPERM)) canAskByName_ = false;
  return result >= 0 || (errno != ENODATA && errno != EOPNOTSUPP);
}

}  // namespace kddc
