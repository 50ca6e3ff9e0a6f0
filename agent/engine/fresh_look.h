// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One path of a volume, or one row, against a copy of the catalogue: how do they differ?
//
// Threads: one. Failures: UDCException and KdException, also when what is looked at vanishes
// meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/engine/catalogue_copy.h"
#include "agent/engine/folder_paths.h"
#include "agent/engine/sight.h"
#include "agent/engine/sqlite_query.h"
#include "platform/ev_debug.h"

namespace kddc {

struct Difference {
  enum class Kind {
    kOnlyOnDisk,
    kOnlyInCatalogue,
    kIdentifier,  // the row under this name is another file's
    kFolder,      // the row lies in another folder
    kName,        // the row has another name
    kType,        // both as FILES.FILE_TYPE
    kMode,
    kOwner,
    kGroup,
    kLinks,
    kSize,
    kAccessed,
    kModified,
    kChanged,
    kRows,  // the rows contradict each other; `catalogue` says how
  } kind;
  std::string catalogue, disk;  // the two values, where they tell something
  bool operator==(const Difference&) const = default;
};
using Differences = std::vector<Difference>;

// The lines that a comparison logs about single entries, while the object lives; what was logged
// before goes on as it did.
class ComparisonLog {
 public:
  using Call = std::function<void(std::string_view line)>;
  // `line` gets those about folders and files, `disturbed` is called when the comparison left
  // something out because an entry had vanished.
  ComparisonLog(const Call& line, const std::function<void()>& disturbed);
  ~ComparisonLog();
  ComparisonLog(const ComparisonLog&) = delete;
  ComparisonLog& operator=(const ComparisonLog&) = delete;

 private:
  bool wasSilent_;
  EvDebug::Sink before_;
};

class FreshLook {
 public:
  // `volume` is the real path. What was committed to the copy until now is looked at.
  FreshLook(CatalogueCopy& copy, const std::string& volume);

  // How the path differs from what was seen there just now; nothing when it agrees.
  Differences at(const std::string& path, const Sight& sight);
  // Calls `suspect` with each path whose attributes seem to be others than those of its row. False
  // of `tick` ends it as a Failure.
  void eachOther(const std::function<void(const std::string& path)>& suspect,
                 const std::function<bool()>& tick);
  // The path of a row of FILES: none when there is no such row, when no file can have its name, or
  // when no chain of folders leads from it up to the root.
  std::optional<std::string> pathOf(std::int64_t inode);
  // How a row of FILES that has no path, or a row of FIDS, contradicts the others.
  Differences ofFilesRow(std::int64_t inode);
  Differences ofFidsRow(std::int64_t row);

 private:
  // The row of one name; of its numbers, those that can be compared with the disk's.
  struct Row {
    std::int64_t inode, fidRow;
    std::vector<std::uint64_t> numbers;
  };
  // What was found on the disk.
  struct Seen {
    const std::string& path;
    const fsf_fid& fid;
    const struct stat& st;
  };
  std::vector<Row> rowsAt(std::int64_t folder, const std::string& name);
  std::optional<std::int64_t> inodeOf(const std::string& folder);
  void forgetMarks(const fsf_fid& fid);
  Differences compare(const std::string& path, const Sight& sight, std::int64_t folder,
                      const std::string& name, const std::vector<Row>& rows);
  Differences judge(const Seen& seen, const std::vector<Row>& rows, Differences found);
  bool hasAnotherName(const Seen& seen);
  std::optional<Difference> understand(std::string_view line, const std::string& path,
                                       const std::string& name);
  Difference otherFolder(unsigned long long inode, const std::string& path);

  OpenCopy& db_;
  const std::string& volume_;
  ReadConnection files_, fids_;
  FolderPaths paths_;
  Query namedRows_, row_, fidsRow_;
  std::map<std::string, std::optional<std::int64_t>> folders_;
};

}  // namespace kddc
