// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The files of a buffer folder: their names, and how a block goes into one and comes back. Private.
#pragma once

#include <string>
#include <string_view>

#include "buffer/in_memory_buffer.h"
#include "platform/unique_fd.h"

namespace kddc {

inline constexpr char kDriverIndicator[] = "DriverThreadShutdownIndicator";
inline constexpr char kDbIndicator[] = "DbThreadShutdownIndicator";
inline constexpr char kClosedDbs[] = "GracefullClosedDbs";

// "swap.<number>"
std::string swapName(unsigned long long number);
// Longer than "swap", and beginning with it.
bool isSwapName(std::string_view name);
// One of the three names above.
bool isStateName(std::string_view name);

// A new or emptied swap file, open for writing; empty, with errno, when that fails.
UniqueFd createSwapFile(const std::string& folder, unsigned long long number, int permissions);
// Deletes a swap file. False when that fails, which is logged under `tag`.
bool removeSwapFile(const char* tag, const std::string& folder, unsigned long long number);

// What a swap file gave.
struct Loaded {
  int bytes;
  bool all;  // false: the file holds bytes that were asked for and did not come, or has no room
};

// Fills `block` with at most `length` bytes of a swap file; a `length` smaller than the block says
// that the rest of the file is not wanted. Throws UDCException type 0 "swap file open failed" and
// what InMemoryBuffer::Load throws; a file that did not come whole is logged under `tag`.
Loaded loadSwapFile(const char* tag, const std::string& folder, unsigned long long number,
                    InMemoryBuffer& block, int length, int blockSize);

// Makes a swap file last through a power loss. False, with errno, when it is there and that fails.
bool syncSwapFile(const std::string& folder, unsigned long long number);

// Deletes the swap, indicator and state files of a folder and its sub-folders, and then the folders
// themselves. Returns false when other files, each of them logged under `tag`, keep it in place.
// Throws UDCException type 0 "Unable to Open the Dir".
bool removeSwapFolder(const char* tag, const std::string& path);

}  // namespace kddc
