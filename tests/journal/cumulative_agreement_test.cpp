// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Where coalescing must not matter. A stream of records leaves the same names with the same
// attributes, whether records are coalesced or not, when
//
//   - each record of attributes brings the access time, and the change time with anything else, all
//     flags being 0 or 1: one by one, a change time that is missing is filled in from the record
//   - records about a file come between its creation, which is known or a CREATE of a plain file,
//     and its removal, and no identifier is in use twice: else what is held back outlives the file
//   - no name is removed of a file that keeps others: the removal drops what is held back
//   - access control lists and extended attributes, which do not see what is held back, do not
//     occur
//   - numbers of 32 bits have their highest bit clear: the two ways store it differently.
//
// Equal are then, for each name: identifier, parent, mode, link count, owner, size, blocks, the
// three times and the type. Not equal must be TIME (one by one it is when a record was applied;
// coalesced it follows from the file's own times) and the numbers of rows (a file that is held back
// is inserted later, or never).
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/cumulative_fixture.h"
#include "tests/support/random_records.h"

namespace {

using kddc::test::DatabaseView;
using kddc::test::Dice;
using kddc::test::LogCapture;
using kddc::test::OpenCumulative;
using kddc::test::OwnedRecord;
using kddc::test::TempFolder;

using Numbers = std::vector<std::uint64_t>;

// A volume that sends such streams. It knows what lies on it.
class OrderlyVolume {
 public:
  OwnedRecord next(std::uint64_t number) {
    dice_ = Dice(number);
    made_ = {};
    made_.record.timestamp = seconds();
    static constexpr void (OrderlyVolume::*kEvents[])() = {
        &OrderlyVolume::create,  &OrderlyVolume::create, &OrderlyVolume::makeFolder,
        &OrderlyVolume::change,  &OrderlyVolume::change, &OrderlyVolume::change,
        &OrderlyVolume::change,  &OrderlyVolume::rename, &OrderlyVolume::link,
        &OrderlyVolume::symLink, &OrderlyVolume::remove, &OrderlyVolume::remove,
        &OrderlyVolume::stub,    &OrderlyVolume::unStub,
    };
    (this->*dice_.oneOf(kEvents))();
    return std::move(made_);
  }

 private:
  struct File {
    fsf_fid fid, parent;
    std::string name;
    bool linked = false;
  };

  Dice dice_{0};
  OwnedRecord made_;
  unsigned madeSoFar_ = 0;
  std::vector<fsf_fid> folders_{fsf_fid{}};
  std::vector<File> files_;

  fsf_fid newFid() {
    fsf_fid fid{};
    // Not in the order of their creation, so that a flush has its own.
    const unsigned number = ++madeSoFar_ * 2654435761U;
    std::memcpy(fid.data + dice_.below(6) * 4, &number, sizeof number);
    return fid;
  }
  const char* keep(std::string text) { return made_.owned.emplace_back(std::move(text)).c_str(); }
  std::string newName() { return "n" + std::to_string(++madeSoFar_); }
  unsigned seconds() { return 1000000000 + static_cast<unsigned>(dice_.below(16)); }
  FlrJrnTime time() { return {seconds(), 0}; }
  unsigned long long owner() { return dice_.below(3); }
  File* file() { return files_.empty() ? nullptr : &dice_.oneOf(files_); }
  auto& as(unsigned cmd) {
    made_.record.cmd = cmd;
    return made_.record.u;
  }

  void create() {
    files_.push_back({newFid(), dice_.oneOf(folders_), newName()});
    const File& f = files_.back();
    as(FLR_JRN_CREATE).create = {.par_fid = f.parent,
                                 .fid = f.fid,
                                 .short_name = keep(f.name),
                                 .mode = 0100644,
                                 .uid = owner(),
                                 .gid = owner(),
                                 .atime = time(),
                                 .mtime = time(),
                                 .rdev = 0};
  }
  void makeFolder() {
    const fsf_fid parent = dice_.oneOf(folders_);
    folders_.push_back(newFid());
    as(FLR_JRN_MKDIR).mkdir = {.par_fid = parent,
                               .fid = folders_.back(),
                               .short_name = keep(newName()),
                               .mode = 040755,
                               .uid = owner(),
                               .gid = owner(),
                               .atime = time(),
                               .mtime = time()};
  }
  void change() {
    const File* f = file();
    if (!f) return;
    const auto flag = [&] { return static_cast<unsigned char>(dice_.below(2)); };
    FlrJrnSetAttrRaw& r = as(FLR_JRN_SETATTR).setattr;
    r = {.fid = f->fid,
         .mode_valid = flag(),
         .uid_valid = flag(),
         .gid_valid = flag(),
         .atime_valid = 1,
         .mtime_valid = flag(),
         .ctime_valid = flag(),
         .size_valid = flag(),
         .blocks_valid = flag(),
         .mode = 0100600 + static_cast<unsigned>(dice_.below(2)),
         .uid = owner(),
         .gid = owner(),
         .atime = time(),
         .mtime = time(),
         .ctime = time(),
         .size = dice_.below(3),
         .blocks = dice_.below(3)};
    if (r.mode_valid || r.uid_valid || r.gid_valid || r.mtime_valid || r.size_valid ||
        r.blocks_valid)
      r.ctime_valid = 1;
  }
  void rename() {
    File* f = file();
    if (!f || f->linked) return;
    const File was = *f;
    f->parent = dice_.oneOf(folders_);
    f->name = newName();
    as(FLR_JRN_RENAME).rename = {.src_fid = was.fid,
                                 .src_par_fid = was.parent,
                                 .src_short_name = keep(was.name),
                                 .dst_fid_valid = 0,
                                 .dst_fid = {},
                                 .dst_par_fid = f->parent,
                                 .dst_short_name = keep(f->name)};
  }
  void link() {
    File* f = file();
    if (!f) return;
    f->linked = true;
    as(FLR_JRN_LINK).link = {f->fid, dice_.oneOf(folders_), keep(newName())};
  }
  void symLink() {
    as(FLR_JRN_SYMLINK).symlink = {
        "to", dice_.oneOf(folders_), keep(newName()), newFid(), owner(), owner()};
  }
  void remove() {
    const File* f = file();
    if (!f || f->linked) return;
    as(FLR_JRN_REMOVE).remove = {f->parent, keep(f->name), f->fid, 0};
    files_.erase(files_.begin() + (f - files_.data()));
  }
  void stub() {
    if (const File* f = file()) as(FLR_JRN_STUB).stub = {f->fid, "elsewhere"};
  }
  void unStub() {
    if (const File* f = file()) as(FLR_JRN_UNSTUB).unstub = {f->fid};
  }
};

// A catalogue that holds so many files back.
struct Catalogue {
  TempFolder folder;
  OpenCumulative db{folder / "catalogue"};

  explicit Catalogue(unsigned long long limit) {
    db.CreateDb();
    EXPECT_TRUE(db.OpenHandle(false, false));
    db.mapLimit = limit;
    db.openTime = 0;
  }
  ~Catalogue() { db.CloseHandle(0, false); }
  Catalogue(const Catalogue&) = delete;
  Catalogue& operator=(const Catalogue&) = delete;

  void clear() {
    db.filesDb->exec_query("DELETE FROM FILES");
    db.fidDb->exec_query("DELETE FROM FIDS");
  }
  // Each name with all that must be equal, the row of its parent by that one's identifier.
  std::vector<std::string> names() {
    db.FlushAllJournals();
    db.Commit();
    DatabaseView view(folder / "catalogue/.db.kd");
    view.rows("ATTACH '" + folder / "catalogue/.fid.kd" + "' AS ids");
    return view.rows(
        "SELECT own.FID1,own.FID2,own.FID3,own.FID4,above.FID1,above.FID2,above.FID3,above.FID4,"
        "NAME,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,FILE_TYPE FROM FILES "
        "JOIN FIDS own ON own.FIDS_ROWID=FID_ROWID AND own.FILES_ROWID=INODE "
        "LEFT JOIN FIDS above ON above.FILES_ROWID=PINODE ORDER BY 1,2,3,4,NAME");
  }
};

TEST(OrderlyStreams, LeaveTheSameNamesWithTheSameAttributesHoweverManyFilesAreHeldBack) {
  const LogCapture quiet(0);
  std::array<Catalogue, 4> catalogues{Catalogue(0), Catalogue(1), Catalogue(10), Catalogue(1000)};
  const auto anyNumber = rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<std::uint64_t>());
  const auto anyNumbers = rc::gen::scale(5, rc::gen::container<Numbers>(anyNumber));
  EXPECT_TRUE(rc::check([&] {
    const Numbers numbers = *anyNumbers;
    OrderlyVolume volume;
    for (Catalogue& catalogue : catalogues) catalogue.clear();
    for (const std::uint64_t number : numbers) {
      const OwnedRecord sent = volume.next(number);
      for (Catalogue& catalogue : catalogues) RC_ASSERT(ApplyJournal(&catalogue.db, sent.record));
    }
    const auto oneByOne = catalogues[0].names();
    for (Catalogue& catalogue : catalogues) RC_ASSERT(catalogue.names() == oneByOne);
  }));
}

}  // namespace
