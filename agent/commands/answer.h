// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What list and changes have in common: a volume's catalogue, opened for reading, whose rows go to
// standard output.
#pragma once

#include <functional>
#include <string>

#include "agent/commands/commands.h"
#include "agent/engine/catalogue_reader.h"

namespace kddc {

using ReadRows = std::function<void(CatalogueReader&, const RowSink&)>;

// Opens the catalogue, prints the rows that `read` gives in that form, and returns the reader's
// last word through `afterwards`, which is not called when nobody read the answer to its end.
void answer(const Options& options, const std::string& volume, Form form, const ReadRows& read,
            const std::function<void(const CatalogueReader&)>& afterwards = {});

}  // namespace kddc
