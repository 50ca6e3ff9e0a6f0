// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/record_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "agent/errors.h"
#include "agent/interrupt.h"
#include "records/journal_record.h"

namespace kddc {
namespace {

constexpr std::size_t kChunk = 256 * 1024;
constexpr int kInterruptCheckMs = 200;
constexpr std::size_t kHeader = 26;
constexpr std::size_t kPrefix = 2;
// How many lengths of a swap file are tried before it is taken for a stream: the first record may
// be a damaged one.
constexpr int kFramesTried = 4;

int swapLength(const unsigned char* bytes) {
  std::int16_t length;
  std::memcpy(&length, bytes, sizeof length);
  return length;
}

std::size_t headerLength(const unsigned char* bytes) {
  FlrJrnHdrRaw header;
  decodeRawHdr(bytes, &header);
  return header.length;
}

[[nodiscard]] UnreadableFile unreadable(const std::string& name) {
  return UnreadableFile(systemFailure("cannot read " + name, errno).what());
}

UniqueFd openFile(const std::string& path) {
  if (path == "-") return UniqueFd(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
  return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

// False when an interrupt came instead. The wait is bounded because one may come just before it.
bool waitForData(int fd) {
  pollfd wanted{fd, POLLIN, 0};
  while (!interrupted()) {
    const int ready = poll(&wanted, 1, kInterruptCheckMs);
    if (ready > 0 || (ready < 0 && errno != EINTR)) return true;
  }
  return false;
}

}  // namespace

RecordFile::RecordFile(std::string path, RecordFormat format)
    : path_(std::move(path)),
      name_(path_ == "-" ? "standard input" : path_),
      format_(format),
      file_(openFile(path_)),
      window_(kChunk) {
  if (!file_) throw unreadable(name_);
}

std::optional<FilePiece> RecordFile::next() {
  if (format_ == RecordFormat::kByContent) format_ = formatByContent();
  if (done_ || !have(1)) return std::nullopt;
  return format_ == RecordFormat::kSwap ? nextOfSwap() : nextOfStream();
}

// The length in front of a record of a swap file is the one in its header. The first two bytes of a
// stream are the command and the highest byte of a length: as a length in front they are too small.
RecordFormat RecordFile::formatByContent() {
  std::size_t frame = 0;
  for (int i = 0; i < kFramesTried && have(frame + kPrefix + kHeader); ++i) {
    const int length = swapLength(at(frame));
    if (length < static_cast<int>(kHeader)) break;
    const auto size = static_cast<std::size_t>(length);
    if (headerLength(at(frame + kPrefix)) == size) return RecordFormat::kSwap;
    frame += kPrefix + size;
  }
  return RecordFormat::kStream;
}

std::optional<FilePiece> RecordFile::nextOfSwap() {
  if (!have(kPrefix)) return lastPiece(0, "the file ends inside a length");
  const int length = swapLength(at(0));
  if (length == 0) return blankRest();
  if (length < 0) return lastPiece(kPrefix, fmt::format("a length of {} is negative", length));
  return record(kPrefix, static_cast<std::size_t>(length));
}

FilePiece RecordFile::nextOfStream() {
  if (!have(kHeader)) return lastPiece(0, "the file ends inside the header of a record");
  const std::size_t length = headerLength(at(0));
  if (length < kHeader)
    return lastPiece(0, fmt::format("a length of {} is too short for a record", length));
  return record(0, length);
}

FilePiece RecordFile::record(std::size_t prefix, std::size_t length) {
  if (!have(prefix + length))
    return lastPiece(prefix, fmt::format("the file ends inside a record of {} bytes", length));
  const unsigned char* bytes = at(prefix);
  FilePiece piece{offset_, {bytes, length}, ""};
  if (!isWellFormedRecord(bytes, length) || headerLength(bytes) != length)
    piece.damage = fmt::format("a record of {} bytes is not well formed", length);
  skip(prefix + length);
  return piece;
}

// Behind the end of its records a block is blank. What is not was a record once.
std::optional<FilePiece> RecordFile::blankRest() {
  for (; have(1); skip(left())) {
    const std::span<const unsigned char> bytes(at(0), left());
    const auto stray = std::ranges::find_if(bytes, [](unsigned char byte) { return byte != 0; });
    if (stray == bytes.end()) continue;
    skip(static_cast<std::size_t>(stray - bytes.begin()));
    return lastPiece(left(), "there is something behind the end of the records");
  }
  return std::nullopt;
}

FilePiece RecordFile::lastPiece(std::size_t prefix, std::string damage) {
  done_ = true;
  return {offset_, {at(prefix), left() - prefix}, std::move(damage)};
}

void RecordFile::skip(std::size_t bytes) {
  begin_ += bytes;
  offset_ += bytes;
}

// Whether the window holds that many bytes, or can be made to.
bool RecordFile::have(std::size_t bytes) {
  while (left() < bytes && !atEnd_) read(bytes);
  return left() >= bytes;
}

// Reads once, with room for `wanted` bytes in all.
void RecordFile::read(std::size_t wanted) {
  std::memmove(window_.data(), at(0), left());
  end_ = left();
  begin_ = 0;
  if (window_.size() < wanted) window_.resize(wanted);
  atEnd_ = !waitForData(file_.get());
  if (atEnd_) return;
  const ssize_t count = ::read(file_.get(), window_.data() + end_, window_.size() - end_);
  if (count < 0 && errno == EINTR) return;
  if (count < 0) throw unreadable(name_);
  atEnd_ = count == 0;
  end_ += static_cast<std::size_t>(count);
}

std::string describeDamage(const RecordFile& file, const FilePiece& piece) {
  return fmt::format("{}: byte {}: {}", file.name(), piece.offset, piece.damage);
}

}  // namespace kddc
