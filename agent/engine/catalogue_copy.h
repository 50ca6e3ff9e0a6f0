// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A private copy of a catalogue, as of its last commit, for work that writes into it: a comparison
// with the disk borrows two columns as marks.
//
//   <copies>/XXXXXX/   0700, locked while it is in use; goes with the object, and what a crash left
//                      behind goes when the next copy is made
//
// The catalogue itself is only read; whoever writes it is never in the way, nor disturbed. The rows
// of FILES are never newer than those of FIDS.
//
// Threads: one. Failures: UDCException of type 3 for what SQLite refuses, Failure for the rest.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "catalogue/db_access.h"
#include "platform/unique_fd.h"

namespace kddc {

// A catalogue whose databases can be asked, and that can be told to stop.
class OpenCopy : public DCSqliteDB {
 public:
  // Files are identified as the scan did it.
  explicit OpenCopy(const std::string& folder) : DCSqliteDB(folder) { driver.acceptInodeNumbers(); }

  fsf_fid identify(const std::string& path) { return driver.getFID(path, false); }

  UDC_DBMS& files() { return *filesDb; }
  UDC_DBMS& fids() { return *fidDb; }
  // How many rows of FILES were changed so far, one that was changed twice counting twice.
  std::uint64_t changes() const;
  // For who asks for many names. Commits.
  void makeIndexOfNames();
  // `tick` is called again and again during SQLite's work; false ends the work with a failure of
  // SQLite's code 9 (interrupted).
  void setTick(std::function<bool()> tick);

 private:
  std::function<bool()> tick_;
};

// Copies what the connection shows into a new database at `path`, through SQLite's backup. `tick`
// as above.
void copyDatabase(sqlite3* from, const std::string& path, const std::function<bool()>& tick);

class CatalogueCopy {
 public:
  // Copies the catalogue in `folder` and opens the copy below `copies`, which is made if need be.
  // `tick` may end this, and all that follows.
  CatalogueCopy(const std::string& folder, const std::string& copies, std::function<bool()> tick);

  OpenCopy& rows() { return *rows_; }
  const std::string& folder() const { return folder_.path(); }

 private:
  // A folder that goes with all that is in it.
  class Folder {
   public:
    explicit Folder(const std::string& copies);
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const std::string& path() const { return path_; }

   private:
    std::string path_;
    UniqueFd lock_;
  };

  Folder folder_;
  std::unique_ptr<OpenCopy> rows_;
};

}  // namespace kddc
