// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/record_spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "agent/errors.h"

namespace kddc {
namespace {

constexpr std::size_t kHeaderBytes = 26;

std::FILE* openUnnamed(const std::string& folder) {
  const int fd = open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0) return std::tmpfile();  // not all file systems can
  std::FILE* file = fdopen(fd, "w+");
  if (!file) close(fd);
  return file;
}

}  // namespace

RecordSpool::RecordSpool(const std::string& folder) : file_(openUnnamed(folder)) {
  if (!file_) throw systemFailure("cannot lay records aside in " + folder, errno);
}

void RecordSpool::add(FlrJrnCommandRaw record) {
  record.seq_num = ++records_;
  bytes_.resize(getRawCmdSize(&record));
  encodeRawCmd(&record, bytes_.data());
  if (std::fwrite(bytes_.data(), 1, bytes_.size(), file_.get()) != bytes_.size())
    throw systemFailure("cannot lay records aside", errno);
}

// Unchecked: nobody but us can have written an unnamed file.
void RecordSpool::drain(const std::function<void(const FlrJrnCommandRaw&)>& take) {
  std::FILE* file = file_.get();
  const auto read = [&](std::size_t from, std::size_t bytes) {
    bytes_.resize(from + bytes);
    if (std::fread(bytes_.data() + from, 1, bytes, file) != bytes)
      throw systemFailure("cannot read the records that were laid aside", errno);
  };
  if (std::fflush(file) != 0) throw systemFailure("cannot lay records aside", errno);
  std::rewind(file);
  for (std::uint64_t i = 0; i < records_; ++i) {
    FlrJrnHdrRaw header;
    read(0, kHeaderBytes);
    decodeRawHdr(bytes_.data(), &header);
    read(kHeaderBytes, header.length - kHeaderBytes);
    FlrJrnCommandRaw record;
    decodeRawCmd(bytes_.data(), &record);
    take(record);
  }
}

}  // namespace kddc
