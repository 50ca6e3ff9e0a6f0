// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Records laid aside to be applied later, as bytes in a file without a name: there may be as many
// as a volume has entries, and nothing of them stays, however the process ends.
//
// Threads: one. Failures: Failure.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "records/journal_record.h"

namespace kddc {

class RecordSpool {
 public:
  // The file lies on the disk of that folder.
  explicit RecordSpool(const std::string& folder);

  // Numbers the record and lays it aside.
  void add(FlrJrnCommandRaw record);
  // Hands out all records in their order. A record's strings live during the call.
  void drain(const std::function<void(const FlrJrnCommandRaw&)>& take);

  std::uint64_t records() const { return records_; }

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  std::unique_ptr<std::FILE, Close> file_;
  std::uint64_t records_ = 0;
  std::vector<unsigned char> bytes_;
};

}  // namespace kddc
