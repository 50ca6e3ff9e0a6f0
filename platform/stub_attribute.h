// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The extended attribute that marks a stub: a regular file whose data was moved away. Private.
#pragma once

#include <string>

namespace kddc {

// The attribute's name: key "StubAttribute" of section "DataClassification", by default
// "trusted.hsm.stub". KdException when it can be no attribute's name.
std::string stubAttribute();

// 1 when `fd` (O_PATH is enough) stands for a regular file that carries `attribute`, 0 when not, a
// negative errno on failure. To a process without CAP_SYS_ADMIN the kernel shows no "trusted."
// attribute, so such a process sees no stubs.
int carriesStubAttribute(int fd, const std::string& attribute);
// The same for what is known to be a regular file.
int regularCarriesStubAttribute(int fd, const std::string& attribute);

}  // namespace kddc
