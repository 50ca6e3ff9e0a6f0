// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The codes of FILES.FILE_TYPE that the code itself asks for; GetFileType (records/fsf_fid.h) knows
// the others. Private.
#pragma once

namespace kddc {

inline constexpr int kRegularFile = 0;
inline constexpr int kFolder = 1;
// As an argument: the mode tells. In a row: any other type.
inline constexpr int kDeriveFromMode = 7;
// A regular file whose data was moved away.
inline constexpr int kStub = 8;

}  // namespace kddc
