// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Names that go, settled: the row of one of several names is dropped, that of a file that is gone
// is removed, any other is parked.
#pragma once

#include <optional>
#include <vector>

#include "agent/live/settle_attributes.h"
#include "agent/live/settling.h"

namespace kddc {

class SettleGoing {
 public:
  SettleGoing(Settling& work, SettleAttributes& attributes)
      : work_(work), attributes_(attributes), rows_(work.rows) {}

  // REMOVE and RMDIR: the name stands for nothing. `file` went, and has that many links left.
  void absent(const fsf_fid& folder, const char* name, const fsf_fid& file, unsigned links,
              const FlrJrnCommandRaw& record);
  // REMOVE in no folder: the number of links.
  void linkCount(const FlrJrnCommandRaw& record);

  // Whoever bears the name; `hint` is who probably does.
  std::optional<Name> bearerOf(unsigned long long folder, const char* name, const fsf_fid& hint);
  // The name is another's now, or nobody's; what has become of the file is not known.
  void takeNameFrom(Name bearer);
  // The row of a file that is gone.
  void remove(const Name& name, const FlrJrnCommandRaw& record);
  // A row that nobody will ask for again.
  void drop(const Name& name);

 private:
  void handOver(const Name& child, unsigned long long folder);
  std::optional<Name> otherRowOf(const Name& name);
  bool isTheOnlyRow(const Name& name);
  void askBelow(const std::vector<Name>& children);
  void removeAll(const fsf_fid& file, const FlrJrnCommandRaw& record);

  Settling& work_;
  SettleAttributes& attributes_;
  LiveCatalogue& rows_;
};

}  // namespace kddc
