// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/commands/answer.h"

#include "agent/catalogue_place.h"
#include "agent/errors.h"
#include "agent/output.h"

namespace kddc {

void answer(const Options& options, const std::string& volume, Form form, const ReadRows& read,
            const std::function<void(const CatalogueReader&)>& afterwards) {
  const std::string path = realVolumePath(volume);
  using Columns = CatalogueReader::Columns;
  CatalogueReader reader(catalogueFolder(options, path), path,
                         form == Form::kJson ? Columns::kAll : Columns::kPath);
  RowPrinter printer(form);
  try {
    read(reader, [&](const CatalogueRow& row) { printer.print(row); });
    printer.flush();
  } catch (const ReaderGone&) {
    return;
  }
  if (afterwards) afterwards(reader);
}

}  // namespace kddc
