// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc dump FILE...: the records of swap files and streams, for people or as JSON Lines.
#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "agent/commands/commands.h"
#include "agent/engine/record_file.h"
#include "agent/errors.h"
#include "agent/output.h"
#include "agent/record_text.h"

namespace kddc {
namespace {

class RecordPrinter {
 public:
  explicit RecordPrinter(bool json)
      : append_(json           ? appendJson
                : isTerminal() ? appendHarmlessText
                               : appendText),
        separated_(!json) {}

  void print(const FlrJrnCommandRaw& record) {
    if (separated_ && !first_) output_.buffer().push_back('\n');
    first_ = false;
    append_(record, output_.buffer());
    output_.endPiece();
  }
  void flush() { output_.flush(); }

 private:
  void (*append_)(const FlrJrnCommandRaw&, fmt::memory_buffer&);
  bool separated_;
  bool first_ = true;
  Output output_;
};

// Prints what can be read of one file.
int dumpFile(const std::string& path, RecordFormat format, RecordPrinter& printer) {
  int result = kExitDone;
  RecordFile file(path, format);
  while (const auto piece = file.next()) {
    if (piece->damage.empty()) {
      FlrJrnCommandRaw record;
      decodeRawCmd(piece->bytes.data(), &record);
      printer.print(record);
    } else {
      printer.flush();  // on a terminal the complaint stands where the record would
      complain(describeDamage(file, *piece));
      result = kExitDifference;
    }
  }
  return result;
}

}  // namespace

int runDump(const std::vector<std::string>& files, RecordFormat format, bool json) {
  RecordPrinter printer(json);
  int result = kExitDone;
  try {
    for (const std::string& file : files) {
      try {
        result = std::max(result, dumpFile(file, format, printer));
      } catch (const UnreadableFile& e) {  // the others may be readable
        complain(e.what());
        result = kExitFailed;
      }
    }
    printer.flush();
  } catch (const ReaderGone&) {
  }
  return result;
}

}  // namespace kddc
