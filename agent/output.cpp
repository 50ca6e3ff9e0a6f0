// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// JSON is written by hand where all is numbers, and by the library where it is text: a row costs a
// microsecond, and there are millions.
#include "agent/output.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/base64.h"
#include "agent/errors.h"
#include "platform/printable.h"
#include "records/fsf_fid.h"

namespace kddc {
namespace {

// Large enough that writing costs nothing beside reading, small enough to be shown soon.
constexpr std::size_t kFlushBytes = 256 * 1024;

// By FILE_TYPE.
constexpr std::array kTypes = {"file", "folder", "symlink", "chardev", "blockdev",
                               "fifo", "socket", "other",   "stub"};

std::string fidMember(const std::optional<fsf_fid>& fid) {
  char digits[49];
  return fid ? '"' + std::string(fid2hex(&*fid, digits)) + '"' : "null";
}

// Past the C library's stream: whoever has read enough ends us quietly, and a full disk is told.
void writeAll(const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(STDOUT_FILENO, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EPIPE) throw ReaderGone();
    if (written < 0) throw systemFailure("cannot write the answer", errno);
    data += written;
    size -= static_cast<std::size_t>(written);
  }
}

}  // namespace

void Output::endPiece() {
  if (buffer_.size() >= kFlushBytes) flush();
}

void Output::flush() {
  writeAll(buffer_.data(), buffer_.size());
  buffer_.clear();
}

void printAnswer(std::string_view text) {
  try {
    writeAll(text.data(), text.size());
  } catch (const ReaderGone&) {
  }
}

bool isTerminal() {
  return isatty(STDOUT_FILENO) != 0;
}

const char* typeName(int type) {
  const auto index = static_cast<std::size_t>(type);
  return index < kTypes.size() ? kTypes[index] : "other";
}

std::string jsonMember(std::string_view name, std::string_view text) {
  if (!isUtf8(text)) return base64Member(name, text);
  return fmt::format("\"{}\":{}", name, printableJson(nlohmann::json(text).dump()));
}

std::string base64Member(std::string_view name, std::string_view bytes) {
  return fmt::format("\"{}_base64\":\"{}\"", name, toBase64(bytes));
}

void RowPrinter::print(const CatalogueRow& row) {
  if (form_ == Form::kJson) {
    printJson(row);
  } else {
    if (harmless_)
      output_.buffer().append(printable(row.path));
    else
      output_.buffer().append(row.path);
    output_.buffer().push_back(form_ == Form::kNul ? '\0' : '\n');
  }
  output_.endPiece();
}

void RowPrinter::printJson(const CatalogueRow& row) {
  fmt::format_to(std::back_inserter(output_.buffer()),
                 R"({{{},"type":"{}","mode":{},"uid":{},"gid":{},"nlink":{},"size":{},"blocks":{},)"
                 R"("atime":{},"mtime":{},"ctime":{},"time":{},"fid":{}}})"
                 "\n",
                 jsonMember("path", row.path), typeName(row.type), row.mode, row.uid, row.gid,
                 row.nlink, row.size, row.blocks, row.atime, row.mtime, row.ctime, row.time,
                 fidMember(row.fid));
}

}  // namespace kddc
