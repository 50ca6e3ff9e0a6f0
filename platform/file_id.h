// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The identifier by which journal records name a file: 24 opaque bytes.
//
// On stock Linux byte 0 is the kernel's handle type, byte 1 the handle's length in bytes, bytes 2
// and 3 are zero, and bytes 4 to 23 hold the kernel's file handle, padded with zeros. Nothing but
// the code that makes or opens a handle looks inside. What can be done with an identifier (order,
// text, column form) is declared in records/fsf_fid.h.
#pragma once

struct fsf_fid {
  alignas(8) unsigned char data[24];
};
