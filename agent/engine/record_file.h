// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A file of encoded journal records, read from its beginning to its end.
//
//   swap file   2  length n of the record, signed, host byte order; 0 means no more records
//               n  the record
//               .. the next length, without padding
//
//   stream      .. a record, which tells its length in its header
//               .. the next record, without padding
//
// The file may hold any bytes. What is not a well-formed record is handed out as damage, and the
// reader goes on behind it where its length can still be trusted: a length that is too short for
// a record of the stream, that is negative or that runs past the end ends the file.
//
// SIGINT and SIGTERM, where they are noted, end the wait for a silent pipe, and with it the file.
// Memory: a window on the file, as large as its largest record (16 MiB at most). Pipes will do.
// Threads: one. Failures: UnreadableFile when the file cannot be opened or read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "agent/errors.h"
#include "platform/unique_fd.h"

namespace kddc {

class UnreadableFile : public Failure {
 public:
  using Failure::Failure;
};

enum class RecordFormat { kByContent, kSwap, kStream };

// A part of a file: one record, or what should have been one.
struct FilePiece {
  std::uint64_t offset;                  // where it begins, its swap length included
  std::span<const unsigned char> bytes;  // of a record: exactly those; of damage: what is there
  std::string damage;                    // empty for a well-formed record, else what is wrong
};

class RecordFile {
 public:
  // Opens the file; "-" is standard input.
  RecordFile(std::string path, RecordFormat format);

  // The next piece, none at the end. Its bytes are valid until the next call.
  std::optional<FilePiece> next();

  // The name to show to people.
  const std::string& name() const { return name_; }

 private:
  bool have(std::size_t bytes);
  void read(std::size_t wanted);
  RecordFormat formatByContent();
  std::optional<FilePiece> nextOfSwap();
  FilePiece nextOfStream();
  std::optional<FilePiece> blankRest();
  FilePiece record(std::size_t prefix, std::size_t length);
  FilePiece lastPiece(std::size_t prefix, std::string damage);
  void skip(std::size_t bytes);
  std::size_t left() const { return end_ - begin_; }
  const unsigned char* at(std::size_t position) const { return window_.data() + begin_ + position; }

  std::string path_;
  std::string name_;
  RecordFormat format_;
  UniqueFd file_;
  bool atEnd_ = false;  // of the file: nothing more to read
  bool done_ = false;   // nothing more to tell

  // The part of the file that is in memory: window_[begin_, end_), which begins at offset_.
  std::vector<unsigned char> window_;
  std::size_t begin_ = 0, end_ = 0;
  std::uint64_t offset_ = 0;
};

// "<file>: byte <offset>: <what is wrong>"
std::string describeDamage(const RecordFile& file, const FilePiece& piece);

}  // namespace kddc
