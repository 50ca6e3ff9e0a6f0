// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Whether files that are looked at by the thousand are stubs, asked cheaply. Private.
#pragma once

#include <string>
#include <utility>

namespace kddc {

class StubProbe {
 public:
  explicit StubProbe(std::string attribute) : attribute_(std::move(attribute)) {}

  // Whether the regular file `fd` (O_PATH is enough) carries the attribute.
  bool isStub(int fd) const;
  // Whether the regular file `name` in `folder` does. Asks by name where the kernel can, which
  // costs a third of opening it; what may be a stub is opened and asked again.
  bool isStub(int folder, const char* name);

 private:
  bool mayCarry(int folder, const char* name);

  std::string attribute_;
  bool canAskByName_ = true;
};

}  // namespace kddc
