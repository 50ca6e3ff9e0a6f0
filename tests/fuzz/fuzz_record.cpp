// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The decoder behind the check, on any bytes. What passes the check must decode without a read
// outside of the record, tell its own length, and encode to the same bytes again. Encoding reads
// every byte that the decoded record points at, so AddressSanitizer sees a pointer that leads out.
#include <vector>

#include "records/journal_record.h"
#include "tests/fuzz/fuzz.h"

using kddc::fuzz::require;

namespace {

void checkRoundTrip(const std::vector<unsigned char>& wire) {
  FlrJrnCommandRaw record;
  require(decodeRawCmd(wire.data(), &record) == 0);
  require(getRawCmdSize(&record) == wire.size());
  std::vector<unsigned char> again(wire.size());
  require(encodeRawCmd(&record, again.data()) == 0);
  require(again == wire);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!kddc::isWellFormedRecord(data, size)) return 0;
  FlrJrnHdrRaw header;
  decodeRawHdr(data, &header);
  // Without what may follow in a stream: a read beyond the record is then one beyond the buffer.
  checkRoundTrip({data, data + header.length});
  return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed) {
  size = LLVMFuzzerMutate(data, size, maxSize);
  if (seed % 4 != 0) kddc::fuzz::putRecordLengthRight(data, size);
  return size;
}
