// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A catalogue as readers see it: one view of FILES, taken when the reader is made and kept until it
// goes, whatever is written or replaced meanwhile.
//
// Only a catalogue that can answer is opened: one of our version, of this volume, whose full scan
// has finished, and which was closed gracefully or is being kept current just now. All else is a
// Failure that says what to do.
//
// Threads: one per object. Failures: Failure.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file_id.h"

namespace kddc {

// One entry. The path is always there, the rest when it was asked for. Seconds and identities count
// as unsigned 32-bit numbers, so times reach from 1970 to 2106.
struct CatalogueRow {
  std::string_view path;  // relative to the volume, "." for its root; valid during the call
  int type = 0;           // FILE_TYPE
  std::uint32_t mode = 0, uid = 0, gid = 0, nlink = 0;
  std::int64_t size = 0, blocks = 0;
  std::uint32_t atime = 0, mtime = 0, ctime = 0;
  std::uint32_t time = 0;      // the change stamp
  std::optional<fsf_fid> fid;  // none when the catalogue does not know it
};

using RowSink = std::function<void(const CatalogueRow&)>;

class CatalogueReader {
 public:
  enum class Columns { kPath, kAll };

  // Opens the catalogue of the volume with that real path.
  CatalogueReader(std::string folder, std::string volumePath, Columns columns);
  ~CatalogueReader();
  CatalogueReader(const CatalogueReader&) = delete;
  CatalogueReader& operator=(const CatalogueReader&) = delete;

  // Calls `sink` for every entry. Rows that wait for a name, and what lies below them, are none.
  void readAll(const RowSink& sink);
  // Calls `sink` for every entry whose change stamp is `since` or later.
  void readSince(long long since, const RowSink& sink);

  // How many entries there are.
  std::uint64_t count();

  // Whether a process keeps the catalogue current; if not, it is as of its last scan.
  bool isKept() const;
  // When the last full scan ended, seconds since 1970.
  std::time_t scanned() const;

 private:
  class View;
  std::unique_ptr<View> view_;
};

// The volume whose catalogue a folder holds; none when there is no catalogue that can be read.
// Failure when that cannot be told at the moment: for want of memory, or of room on the disk.
std::optional<std::string> volumeOf(const std::string& folder);

}  // namespace kddc
