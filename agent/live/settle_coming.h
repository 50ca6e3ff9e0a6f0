// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Names that come, settled: a new row, a further one, or one that moves. Whoever bore the name
// before is taken out of the way first.
#pragma once

#include <vector>

#include "agent/live/settle_attributes.h"
#include "agent/live/settle_going.h"
#include "agent/live/settling.h"
#include "catalogue/file_type.h"
#include "driver/record_mask.h"

namespace kddc {

// A file at a name, as a record tells of it.
struct NamedFile {
  const fsf_fid& folder;
  const char* name;
  const fsf_fid& file;
  int type;
  RecordMask mask;

  bool isFolder() const { return type == kFolder; }
  // A stub is a regular file.
  bool isOfType(int rowType) const {
    return rowType == type || (rowType == kStub && type == kRegularFile);
  }
};

class SettleComing {
 public:
  SettleComing(Settling& work, SettleAttributes& attributes, SettleGoing& going)
      : work_(work), attributes_(attributes), going_(going), rows_(work.rows) {}

  // CREATE, MKDIR, SYMLINK.
  void present(const NamedFile& found, const FlrJrnCommandRaw& record);
  // RENAME.
  void rename(const FlrJrnCommandRaw& record);

 private:
  bool isBorneBy(unsigned long long folder, const NamedFile& found);
  std::vector<Name> namesOf(const NamedFile& found, const FlrJrnCommandRaw& record);
  void keepOneRow(std::vector<Name>& names);
  bool makeWay(unsigned long long folder, const NamedFile& found, bool mayAdopt);
  void takeUnknown(const NamedFile& found, unsigned long long folder,
                   const FlrJrnCommandRaw& record);
  void correctType(const fsf_fid& fid, unsigned mode);
  void giveName(const NamedFile& found, unsigned long long folder, const std::vector<Name>& names,
                const FlrJrnCommandRaw& record);
  void move(const Name& row, unsigned long long folder, const FlrJrnCommandRaw& record);
  void link(const NamedFile& found, unsigned long long folder, const std::vector<Name>& names,
            const FlrJrnCommandRaw& record);
  void addRow(const NamedFile& found, unsigned long long folder, const Name& other, unsigned time);

  Settling& work_;
  SettleAttributes& attributes_;
  SettleGoing& going_;
  LiveCatalogue& rows_;
};

}  // namespace kddc
