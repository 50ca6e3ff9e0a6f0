// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/fresh_look.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <list>
#include <utility>

#include "agent/engine/catalogue_folder.h"
#include "agent/errors.h"
#include "catalogue/file_type.h"
#include "platform/exceptions.h"

namespace kddc {
namespace {

using Kind = Difference::Kind;

constexpr std::array<std::string_view, 2> kEntryTags = {"DCSqliteDB :: VerifyFolder",
                                                        "DCSqliteDB :: VerifyFile"};
constexpr std::string_view kLeftOut = "stat failed on [";

// Lines that tell two numbers, by their beginnings behind the path.
struct NumberLine {
  std::string_view beginning;
  Kind kind;
  bool is32Bits;
};
// The beginnings stand in the log of the comparison to the letter, blanks and capitals included.
constexpr NumberLine kNumberLines[] = {
    {"Pinode differs. DB has[", Kind::kFolder, false},
    {"Nlink Differs. DB has[", Kind::kLinks, true},
    {"Size differs.DB has[", Kind::kSize, false},
    {"Atime differs.DB has[", Kind::kAccessed, true},
    {"Mtime differs.DB has[", Kind::kModified, true},
    {"Ctime differs.DB has[", Kind::kChanged, true},
};
constexpr std::string_view kCurrent = "]. Current[";

// Lines that tell two names: what stands before, between and behind.
struct NameLine {
  std::string_view beginning, middle;
};
constexpr NameLine kNameLines[] = {{"ShortName differs. DB[", "] . Current["},
                                   {"Name in DB[", "] Name on Disk["}};

// The identifier has no row or names none, or of a file's several names this one has none.
constexpr std::string_view kUnknown[] = {
    "has no corresponding entry in the FIDS DB", "has multiple or no entries [0] in the FIDS DB",
    "has one/more[0] entries in the FILES DB", "has multiple or no entries [0] in the FILES DB",
    "has multiple entries in the FILES DB[0] "};

unsigned long long numberAt(std::string_view text) {
  unsigned long long number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

bool has(const Differences& differences, Kind kind) {
  return std::ranges::find(differences, kind, &Difference::kind) != differences.end();
}

// What a row tells of attributes, and what the disk does; both as 32 bits but for the size.
struct Attribute {
  Kind kind;
  std::uint64_t (*onDisk)(const struct stat& st);
};
// Columns were bound as 32 bits, so a larger number on the disk is no difference.
std::uint64_t low(std::uint64_t number) {
  return number & 0xffffffff;
}
constexpr Attribute kAttributes[] = {
    {Kind::kMode, [](const struct stat& st) { return low(st.st_mode); }},
    {Kind::kOwner, [](const struct stat& st) { return low(st.st_uid); }},
    {Kind::kGroup, [](const struct stat& st) { return low(st.st_gid); }},
    {Kind::kLinks, [](const struct stat& st) { return low(st.st_nlink); }},
    {Kind::kSize, [](const struct stat& st) { return static_cast<std::uint64_t>(st.st_size); }},
    {Kind::kModified,
     [](const struct stat& st) { return low(static_cast<std::uint64_t>(st.st_mtime)); }},
    {Kind::kChanged,
     [](const struct stat& st) { return low(static_cast<std::uint64_t>(st.st_ctime)); }},
};
constexpr char kAttributeColumns[] = "MODE,UID,GID,NLINK,SIZE,MTIME,CTIME,FILE_TYPE";

std::vector<std::uint64_t> numbersFrom(const Query& query, int column) {
  std::vector<std::uint64_t> numbers;
  for (const Attribute& attribute : kAttributes) {
    const auto number = static_cast<std::uint64_t>(query.integer(column++));
    numbers.push_back(attribute.kind == Kind::kSize ? number : low(number));
  }
  numbers.push_back(static_cast<std::uint64_t>(query.integer(column)));
  return numbers;
}

// Whether a plain file is a stub the mode does not tell.
bool isSameType(std::uint64_t type, mode_t mode) {
  return type == kStub ? S_ISREG(mode) : type == static_cast<std::uint64_t>(GetFileType(mode));
}

// Where the row and the disk differ, unless that is known.
void addAttributes(const std::vector<std::uint64_t>& numbers, const struct stat& st,
                   Differences& found) {
  for (std::size_t i = 0; i < std::size(kAttributes); ++i) {
    const std::uint64_t onDisk = kAttributes[i].onDisk(st);
    if (numbers[i] != onDisk && !has(found, kAttributes[i].kind))
      found.push_back({kAttributes[i].kind, fmt::to_string(numbers[i]), fmt::to_string(onDisk)});
  }
  if (!isSameType(numbers.back(), st.st_mode))
    found.push_back({Kind::kType, fmt::to_string(numbers.back()),
                     fmt::to_string(static_cast<int>(GetFileType(st.st_mode)))});
}

std::pair<std::string_view, std::string> splitPath(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {"", path};
  return {std::string_view(path).substr(0, slash), path.substr(slash + 1)};
}

std::string dotForRoot(const std::string& path) {
  return path.empty() ? "." : path;
}

}  // namespace

// The comparison tells what differs in debug lines only. Where nobody wanted to see them they are
// switched on for its time, and kept from the sink that was there.
ComparisonLog::ComparisonLog(const Call& line, const std::function<void()>& disturbed)
    : wasSilent_(!dbg.Enabled(1)), before_(dbg.SetSink({})) {
  if (wasSilent_) dbg.SetLevel(1);
  dbg.SetSink([=, this](const EvDebug::Line& each) {
    if (std::ranges::find(kEntryTags, each.tag) != kEntryTags.end() &&
        each.kind == EvDebug::Line::kDebug)
      line(each.text);
    else if (each.text.starts_with(kLeftOut))
      disturbed();
    if (before_ && !wasSilent_) before_(each);
  });
}

ComparisonLog::~ComparisonLog() {
  if (wasSilent_) dbg.SetLevel(0);
  dbg.SetSink(std::move(before_));
}

FreshLook::FreshLook(CatalogueCopy& copy, const std::string& volume)
    : db_(copy.rows()),
      volume_(volume),
      files_(copy.folder() + kFilesDatabase),
      fids_(copy.folder() + kFidDatabase),
      paths_(files_),
      namedRows_(files_, fmt::format("SELECT INODE,FID_ROWID,{} FROM FILES WHERE PINODE=?1 AND "
                                     "NAME=?2",
                                     kAttributeColumns)
                             .c_str()),
      row_(files_, "SELECT PINODE,NAME,FID_ROWID FROM FILES WHERE INODE=?1"),
      fidsRow_(fids_, "SELECT FILES_ROWID FROM FIDS WHERE FIDS_ROWID=?1") {
  // The rows as they came: the marks of what is looked at are not seen.
  files_.run("BEGIN");
  row_.bind(0).step();
}

std::vector<FreshLook::Row> FreshLook::rowsAt(std::int64_t folder, const std::string& name) {
  std::vector<Row> rows;
  namedRows_.bind(folder).bindText(2, name);
  while (namedRows_.step())
    rows.push_back({namedRows_.integer(0), namedRows_.integer(1), numbersFrom(namedRows_, 2)});
  return rows;
}

// Down from the root, by names: the disk says which folder is meant, and folders are remembered
// because suspects mostly lie in the same few.
std::optional<std::int64_t> FreshLook::inodeOf(const std::string& folder) {
  if (const auto known = folders_.find(folder); known != folders_.end()) return known->second;
  const auto [above, name] = splitPath(folder);
  const auto parent = folder.empty() ? 0 : inodeOf(std::string(above));
  std::optional<std::int64_t> inode;
  if (parent)
    if (const auto rows = rowsAt(*parent, folder.empty() ? volume_ : name); !rows.empty())
      inode = rows.front().inode;
  return folders_[folder] = inode;
}

std::optional<std::string> FreshLook::pathOf(std::int64_t inode) {
  if (!row_.bind(inode).step()) return std::nullopt;
  const std::int64_t folder = row_.integer(0);
  const std::string name(row_.text(1));
  row_.reset();
  if (folder == 0) return name == volume_ ? std::optional<std::string>("") : std::nullopt;
  if (!canBeAName(name)) return std::nullopt;
  try {
    const std::string* prefix = paths_.prefixOf(folder);
    return prefix ? std::optional(*prefix + name) : std::nullopt;
  } catch (const UDCException&) {  // no chain of folders
    return std::nullopt;
  }
}

// The comparison itself says nothing of modes, owners and groups; so each row that has a path is
// held against the disk once more, here.
void FreshLook::eachOther(const std::function<void(const std::string& path)>& suspect,
                          const std::function<bool()>& tick) {
  Query all(files_, fmt::format("SELECT PINODE,NAME,{} FROM FILES", kAttributeColumns).c_str());
  while (all.step()) {
    if (!tick()) throw Failure("interrupted");
    const std::int64_t folder = all.integer(0);
    const std::string name(all.text(1));
    try {
      const std::string* prefix = folder == 0 ? nullptr : paths_.prefixOf(folder);
      // What has no path, or a name that would lead elsewhere, is told of by its number.
      if (folder != 0 && !(prefix && canBeAName(name))) continue;
      const std::string path = prefix ? *prefix + name : "";
      struct stat st;
      Differences found;
      if (lstat((volume_ + "/" + path).c_str(), &st) == 0)
        addAttributes(numbersFrom(all, 2), st, found);
      if (!found.empty()) suspect(path);
    } catch (const UDCException&) {  // no chain of folders; nothing on the disk will claim it
    }
  }
}

Differences FreshLook::ofFilesRow(std::int64_t inode) {
  if (!row_.bind(inode).step()) return {};
  const std::int64_t folder = row_.integer(0);
  const std::string name(row_.text(1));
  row_.reset();
  const auto damaged = [&](const char* how) -> Differences {
    return {{Kind::kRows, fmt::format("'{}' {}", name, how), ""}};
  };
  constexpr char kLost[] = "has no way up to the volume's root";
  if (folder == 0) return name == volume_ ? Differences() : damaged(kLost);
  try {
    // Rows that wait for a name are none, and have no path either.
    if (!paths_.prefixOf(folder) || canBeAName(name)) return {};
    return damaged("is a name that no file can have");
  } catch (const UDCException&) {  // no chain of folders
    return damaged(kLost);
  }
}

Differences FreshLook::ofFidsRow(std::int64_t row) {
  if (!fidsRow_.bind(row).step()) return {};
  const std::int64_t inode = fidsRow_.integer(0);
  fidsRow_.reset();
  if (!row_.bind(inode).step())
    return {{Kind::kRows, fmt::format("it names row {} of FILES, which is not there", inode), ""}};
  const std::int64_t named = row_.integer(2);
  row_.reset();
  if (named == row) return {};
  return {{Kind::kRows,
           fmt::format("it names row {} of FILES, which names row {} of FIDS", inode, named), ""}};
}

// So that an entry can be looked at, whatever was looked at before.
void FreshLook::forgetMarks(const fsf_fid& fid) {
  std::list<unsigned long long> inodes, fidsRows;
  db_.GetFidTuple(&fid, &inodes, nullptr, nullptr, nullptr, nullptr, &fidsRows);
  const auto forget = [](UDC_DBMS& db, const char* sql, unsigned long long row) {
    db.exec_query(fmt::format(fmt::runtime(sql), row).c_str());
  };
  for (const auto row : inodes)
    forget(db_.files(), "UPDATE FILES SET GID=0 WHERE INODE={} AND GID IS NOT NULL", row);
  for (const auto row : fidsRows)
    forget(db_.fids(), "UPDATE FIDS SET RESCAN=0 WHERE FIDS_ROWID={} AND RESCAN IS NOT NULL", row);
}

Differences FreshLook::at(const std::string& path, const Sight& sight) {
  const auto [above, last] = splitPath(path);
  const std::string& name = path.empty() ? volume_ : last;
  const auto folder = path.empty() ? 0 : inodeOf(std::string(above));
  const std::vector<Row> rows = folder ? rowsAt(*folder, name) : std::vector<Row>();
  if (!sight.isPresent() && rows.empty()) return {};
  if (!sight.isPresent()) return {{Kind::kOnlyInCatalogue, "", ""}};
  if (!folder) return {{Kind::kOnlyOnDisk, "", ""}};
  return compare(path, sight, *folder, name, rows);
}

// One entry through the operations of the library, as if the walk had just come by, and what they
// say of it as differences.
Differences FreshLook::compare(const std::string& path, const Sight& sight, std::int64_t folder,
                               const std::string& name, const std::vector<Row>& rows) {
  const std::string whole = path.empty() ? volume_ : volume_ + "/" + path;
  const fsf_fid fid = db_.identify(whole);
  forgetMarks(fid);
  Differences found;
  {
    const std::string prefix = "[" + whole + "] ";
    const ComparisonLog log(
        [&](std::string_view line) {
          if (line.starts_with("Query[")) return;
          if (line.starts_with(prefix)) line.remove_prefix(prefix.size());
          const auto difference = understand(line, path, name);
          if (difference && !has(found, difference->kind)) found.push_back(*difference);
        },
        [] {});
    const auto parent = static_cast<unsigned long long>(folder);
    unsigned long long inode = 0;
    if (S_ISDIR(sight.status().st_mode))
      db_.VerifyFolder(whole, parent, name.c_str(), inode, sight.status());
    else
      db_.VerifyFile(whole, parent, name.c_str(), sight.status());
  }
  return judge({path, fid, sight.status()}, rows, std::move(found));
}

// What the lines about the identifier's row mean, in view of the rows that bear the name.
Differences FreshLook::judge(const Seen& seen, const std::vector<Row>& rows, Differences found) {
  if (rows.empty()) {
    const bool isElsewhere = has(found, Kind::kFolder) || has(found, Kind::kName);
    if (has(found, Kind::kIdentifier) || (isElsewhere && hasAnotherName(seen)))
      return {{Kind::kOnlyOnDisk, "", ""}};
    return found;
  }
  if (rows.size() > 1)
    found.push_back({Kind::kRows, fmt::format("{} rows bear this name", rows.size()), ""});
  const auto own = std::ranges::find_if(rows, [&](const Row& row) {
    fsf_fid named{};
    return db_.GetFidGivenFidsRowId(static_cast<unsigned long long>(row.fidRow), &named) &&
           named == seen.fid;
  });
  if (own != rows.end())
    addAttributes(own->numbers, seen.st, found);
  else if (!has(found, Kind::kIdentifier))
    found.push_back({Kind::kIdentifier, "", ""});
  return found;
}

// Whether a row of the identifier rightly bears another name: the file has several.
bool FreshLook::hasAnotherName(const Seen& seen) {
  std::list<unsigned long long> inodes;
  db_.GetFidTuple(&seen.fid, &inodes, nullptr, nullptr, nullptr, nullptr, nullptr);
  return std::ranges::any_of(inodes, [&](unsigned long long inode) {
    const auto other = pathOf(static_cast<std::int64_t>(inode));
    if (!other || *other == seen.path) return false;
    try {
      return db_.identify(volume_ + "/" + *other) == seen.fid;
    } catch (const KdException&) {  // not there
      return false;
    }
  });
}

// None for a line that tells nothing more.
std::optional<Difference> FreshLook::understand(std::string_view line, const std::string& path,
                                                const std::string& name) {
  for (const NumberLine& number : kNumberLines) {
    if (!line.starts_with(number.beginning)) continue;
    const unsigned long long mask = number.is32Bits ? 0xffffffff : ~0ULL;
    const auto inDb = numberAt(line.substr(number.beginning.size())) & mask;
    if (number.kind == Kind::kFolder) return otherFolder(inDb, path);
    const auto onDisk = numberAt(line.substr(line.find(kCurrent) + kCurrent.size())) & mask;
    return Difference{number.kind, fmt::to_string(inDb), fmt::to_string(onDisk)};
  }
  for (const auto& [beginning, middle] : kNameLines) {
    const std::string end = fmt::format("{}{}]", middle, name);
    if (!line.starts_with(beginning) || !line.ends_with(end)) continue;
    line.remove_prefix(beginning.size());
    line.remove_suffix(end.size());
    return Difference{Kind::kName, std::string(line), name};
  }
  // The types are compared in full, elsewhere.
  if (line.starts_with("FileType differs") || line.starts_with("is a Folder, But"))
    return std::nullopt;
  if (std::ranges::find(kUnknown, line) != std::end(kUnknown))
    return Difference{Kind::kIdentifier, "", ""};
  return Difference{Kind::kRows, std::string(line), ""};
}

Difference FreshLook::otherFolder(unsigned long long inode, const std::string& path) {
  const auto folder = pathOf(static_cast<std::int64_t>(inode));
  return {Kind::kFolder, folder ? dotForRoot(*folder) : fmt::format("row {}", inode),
          dotForRoot(std::string(splitPath(path).first))};
}

}  // namespace kddc
