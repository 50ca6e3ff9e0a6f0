// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A catalogue that is being made, beside the one that it will replace.
//
//   <folder>.new   filled here, marked as not gracefully closed
//   <folder>       the catalogue before; readers and the next scan find it whole until the end
//
// publish closes the new one durably and exchanges the two names at once; then the old one is
// removed. Without it nothing of the new one stays, and what a crash left is removed by the next.
//
// One at a time is made for a folder: the new one's own lock says so, and the folder above is
// locked for the moments in which either is created or exchanged.
#pragma once

#include <ctime>
#include <memory>
#include <string>

#include "agent/engine/scan_catalogue.h"

namespace kddc {

class NewCatalogue {
 public:
  // Creates and opens the new catalogue of the volume with that real path. Failure when `folder` is
  // in use, holds foreign files or another volume's catalogue; nothing was changed then.
  NewCatalogue(std::string folder, std::string volumePath);
  ~NewCatalogue();
  NewCatalogue(const NewCatalogue&) = delete;
  NewCatalogue& operator=(const NewCatalogue&) = delete;

  ScanCatalogue& rows() { return *db_; }
  // Where it is made.
  const std::string& buildFolder() const { return building_; }

  // Marks the scan, which began at `began`, as complete, and puts the catalogue in its place. When
  // it is there and only its lasting cannot be had, the old one is kept beside it.
  void publish(std::time_t began);

 private:
  void refuseUnlessReplaceable() const;
  void refuseWhileInUse() const;
  void create();
  void exchange() const;

  std::string folder_;
  std::string building_;
  std::string volumePath_;
  std::unique_ptr<ScanCatalogue> db_;
};

}  // namespace kddc
