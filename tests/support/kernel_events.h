// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Events of fanotify as the kernel lays them out in the buffer of a read.
#pragma once

#include <sys/fanotify.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/file_id.h"

namespace kddc::test {

// A name in a folder.
struct EntryName {
  fsf_fid folder;
  std::string name;
};

struct KernelEvent {
  std::uint64_t mask = 0;
  int pid = 0;
  std::optional<EntryName> entry;     // DFID_NAME; OLD_DFID_NAME of a RENAME
  std::optional<EntryName> newEntry;  // NEW_DFID_NAME
  std::optional<fsf_fid> object;      // FID
};

namespace wire {

using Bytes = std::vector<unsigned char>;

template <class T>
void put(Bytes& bytes, T value) {
  const auto* raw = reinterpret_cast<const unsigned char*>(&value);
  bytes.insert(bytes.end(), raw, raw + sizeof value);
}

// Type, padding, length, file system, handle, name with its NUL, zeros up to a multiple of 4.
inline void putInfo(Bytes& bytes, std::uint8_t type, const fsf_fid& fid, const std::string* name) {
  Bytes body;
  put<std::uint64_t>(body, 0x1122334455667788);
  put<std::uint32_t>(body, fid.data[1]);
  put<std::int32_t>(body, fid.data[0]);
  body.insert(body.end(), fid.data + 4, fid.data + 4 + fid.data[1]);
  if (name) body.insert(body.end(), name->c_str(), name->c_str() + name->size() + 1);
  while (body.size() % 4 != 0) body.push_back(0);
  put<std::uint8_t>(bytes, type);
  put<std::uint8_t>(bytes, 0);
  put<std::uint16_t>(bytes, static_cast<std::uint16_t>(body.size() + 4));
  bytes.insert(bytes.end(), body.begin(), body.end());
}

}  // namespace wire

// The bytes of one event.
inline std::vector<unsigned char> kernelBytes(const KernelEvent& event) {
  const bool renamed = (event.mask & FAN_RENAME) != 0;
  wire::Bytes infos;
  if (event.entry) wire::putInfo(infos, renamed ? 10 : 2, event.entry->folder, &event.entry->name);
  if (event.newEntry) wire::putInfo(infos, 12, event.newEntry->folder, &event.newEntry->name);
  if (event.object) wire::putInfo(infos, 1, *event.object, nullptr);

  wire::Bytes bytes;
  wire::put<std::uint32_t>(bytes, static_cast<std::uint32_t>(24 + infos.size()));
  wire::put<std::uint8_t>(bytes, FANOTIFY_METADATA_VERSION);
  wire::put<std::uint8_t>(bytes, 0);
  wire::put<std::uint16_t>(bytes, 24);
  wire::put<std::uint64_t>(bytes, event.mask);
  wire::put<std::int32_t>(bytes, FAN_NOFD);
  wire::put<std::int32_t>(bytes, event.pid);
  bytes.insert(bytes.end(), infos.begin(), infos.end());
  return bytes;
}

}  // namespace kddc::test
