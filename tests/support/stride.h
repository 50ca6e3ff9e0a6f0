// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Tests that live through the same again, for each call that may fail or be the last, take every
// one. Under a sanitizer, which makes each life several times as long and looks for other faults,
// they take every so many.
#pragma once

namespace kddc::test {

#ifdef KDDC_ADDRESS_SANITIZER
inline constexpr int kStride = 5;
#else
inline constexpr int kStride = 1;
#endif

}  // namespace kddc::test
