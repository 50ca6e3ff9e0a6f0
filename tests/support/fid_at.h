// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The identifier of what lies at a path.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/file_handle.h"
#include "records/fsf_fid.h"

namespace kddc::test {

inline fsf_fid fidAt(const std::string& path) {
  fsf_fid fid{};
  EXPECT_EQ(identify(AT_FDCWD, path.c_str(), fid), 0) << path;
  return fid;
}

}  // namespace kddc::test
