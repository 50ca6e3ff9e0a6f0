// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc list VOLUME: every entry of the catalogue.
#include "agent/commands/answer.h"

namespace kddc {

int runList(const Options& options, const std::string& volume, Form form) {
  answer(options, volume, form,
         [](CatalogueReader& reader, const RowSink& sink) { reader.readAll(sink); });
  return kExitDone;
}

}  // namespace kddc
