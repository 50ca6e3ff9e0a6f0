// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Random trees, changed or damaged at random: after a rescan every row says what an independent
// walk finds, what survives keeps its row, and what did not change was not touched.
#include <gmock/gmock.h>

#include <cstdlib>
#include <random>
#include <set>
#include <span>

#include "tests/support/scanned_volume.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

constexpr unsigned kSeeds = 200;

class RandomTree {
 public:
  RandomTree(ScannedVolume& volume, unsigned seed) : volume_(volume), random_(seed) {
    for (int i = 0; i < 30; ++i) grow();
  }

  void change() {
    switch (below(10)) {
      case 0:
      case 1:
        return grow();
      case 2:
        return remove();
      case 3:
      case 4:
      case 5:
        return rename();
      case 6:
        return link();
      case 7:
        return touch([&](const fs::path& path) {
          fs::permissions(path, below(2) ? fs::perms(0600) : fs::perms(0711));
        });
      case 8:
        return touch([&](const fs::path& path) {
          if (fs::is_regular_file(path)) std::ofstream(path) << std::string(below(50), 'x');
        });
      default:
        return exchange();
    }
  }
  unsigned below(unsigned limit) { return std::uniform_int_distribution(0U, limit - 1)(random_); }

 private:
  std::vector<fs::path> all() const {
    std::vector<fs::path> paths;
    for (const auto& entry : fs::recursive_directory_iterator(volume_.path()))
      paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());  // so that a seed means the same everywhere
    return paths;
  }
  fs::path anyFolder() {
    std::vector<fs::path> folders = {volume_.path()};
    for (const fs::path& path : all())
      if (fs::is_directory(fs::symlink_status(path))) folders.push_back(path);
    return folders[below(static_cast<unsigned>(folders.size()))];
  }
  // Few names, so that they come again for other files.
  fs::path anyName() { return anyFolder() / std::string(1, static_cast<char>('a' + below(8))); }
  fs::path anyEntry() {
    const auto paths = all();
    return paths.empty() ? fs::path() : paths[below(static_cast<unsigned>(paths.size()))];
  }

  void grow() {
    const fs::path path = anyName();
    if (fs::exists(fs::symlink_status(path))) return;
    switch (below(5)) {
      case 0:
      case 1:
        fs::create_directory(path);
        break;
      case 2:
        fs::create_symlink(std::string(below(20) + 1, 's'), path);
        break;
      default:
        std::ofstream(path) << std::string(below(50), 'x');
    }
  }
  void remove() {
    if (const fs::path path = anyEntry(); !path.empty()) fs::remove_all(path);
  }
  void rename() {
    const fs::path from = anyEntry(), to = anyName();
    std::error_code impossible;  // into itself, over a folder that is not empty
    if (!from.empty()) fs::rename(from, to, impossible);
  }
  void link() {
    const fs::path from = anyEntry();
    std::error_code impossible;
    if (!from.empty() && fs::is_regular_file(fs::symlink_status(from)))
      fs::create_hard_link(from, anyName(), impossible);
  }
  void exchange() {
    const fs::path one = anyEntry(), other = anyEntry();
    if (!one.empty()) ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
  }
  template <class Change>
  void touch(Change&& change) {
    const fs::path path = anyEntry();
    if (!path.empty() && !fs::is_symlink(fs::symlink_status(path))) change(path);
  }

  ScannedVolume& volume_;
  std::mt19937 random_;
};

// What a row says of its file, in parts.
std::string identifierIn(const std::string& text) {
  return text.substr(text.rfind('|') + 1);
}
bool hasOneName(const std::string& text) {
  std::size_t at = 0;
  for (int i = 0; i < 4; ++i) at = text.find('|', at) + 1;
  return text[0] == '1' || text.substr(at, 2) == "1|";
}

// The rows of folders and of files with one name, by identifier.
std::map<std::string, long long> rowsOfOneName(const ScannedVolume& volume) {
  const auto inodes = volume.inodes();
  std::map<std::string, long long> rows;
  for (const auto& [path, text] : volume.inCatalogue())
    if (hasOneName(text)) rows[identifierIn(text)] = inodes.at(path);
  return rows;
}

// Entries that are the same file under the same names all the way from the root, unchanged.
std::set<std::string> unchanged(const ScannedVolume::Entries& before,
                                const ScannedVolume::Entries& after) {
  std::set<std::string> same, folders = {"."};
  for (const auto& [path, text] : before) {  // a folder comes before what lies in it
    const auto now = after.find(path);
    const std::string folder =
        path.find('/') == std::string::npos ? "." : fs::path(path).parent_path();
    if (now == after.end() || !folders.contains(folder)) continue;
    if (identifierIn(now->second) == identifierIn(text) && text[0] == '1') folders.insert(path);
    if (now->second == text) same.insert(path);
  }
  return same;
}

struct RescanProperty : testing::Test {
  // In memory where that is possible: hundreds of catalogues are made and closed durably.
  RescanProperty() {
    if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 1);
  }
  static void expectNothingLeft(ScannedVolume& volume) {
    volume.expectSame();
    const auto before = volume.dump();
    const SettleCounts counts = volume.rescan().settled;
    EXPECT_EQ(counts.added + counts.changed + counts.moved + counts.removed, 0u);
    EXPECT_EQ(volume.dump(), before);
  }
};

TEST_F(RescanProperty, ARandomlyChangedTreeIsFollowed) {
  for (unsigned seed = 0; seed < kSeeds && !HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    ScannedVolume volume;
    RandomTree tree(volume, seed);
    volume.scan();
    const auto rowsBefore = rowsOfOneName(volume);
    const auto before = volume.inCatalogue();
    for (unsigned i = tree.below(40); i > 0; --i) tree.change();
    volume.rescan();
    expectNothingLeft(volume);
    const auto rows = rowsOfOneName(volume);
    for (const auto& [identifier, inode] : rowsBefore) {
      const auto now = rows.find(identifier);
      if (now != rows.end()) {
        EXPECT_EQ(now->second, inode) << identifier;
      }
    }
    const auto inodes = volume.inodes();
    for (const std::string& path : unchanged(before, volume.inCatalogue()))
      EXPECT_EQ(volume.number("TIME", "INODE=" + std::to_string(inodes.at(path))), 1000) << path;
  }
}

TEST_F(RescanProperty, ARandomlyDamagedCatalogueIsPutRight) {
  constexpr const char* kFilesDamage[] = {
      "UPDATE FILES SET PINODE=# WHERE ",
      "UPDATE FILES SET PINODE=9223372036854775807,NAME='' WHERE ",
      "UPDATE FILES SET NAME=char(97+#%8) WHERE ",
      "UPDATE FILES SET FID_ROWID=# WHERE ",
      "UPDATE FILES SET FILE_TYPE=#%9 WHERE ",
      "UPDATE FILES SET MODE=MODE+1,SIZE=SIZE+1 WHERE ",
      "DELETE FROM FILES WHERE ",
  };
  constexpr const char* kFidsDamage[] = {
      "UPDATE FIDS SET FILES_ROWID=# WHERE ",
      "UPDATE FIDS SET FID2=# WHERE ",
      "INSERT INTO FIDS SELECT NULL,#,0,0,FID1,FID2,FID3,FID4 FROM FIDS WHERE ",
      "DELETE FROM FIDS WHERE ",
  };
  for (unsigned seed = 0; seed < kSeeds && !HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    ScannedVolume volume;
    RandomTree tree(volume, seed);
    volume.scan();
    for (unsigned i = tree.below(8); i > 0; --i) {
      const std::string row = std::to_string(tree.below(30) + 2);  // all but the root
      const auto damage = [&](std::span<const char* const> kinds, const std::string& where) {
        std::string sql = kinds[tree.below(static_cast<unsigned>(kinds.size()))] + where;
        const auto number = sql.find('#');
        if (number != std::string::npos) sql.replace(number, 1, std::to_string(tree.below(40)));
        return sql;
      };
      volume.change(damage(kFilesDamage, "INODE=" + row));
      volume.changeFids(damage(kFidsDamage, "FIDS_ROWID=" + row));
    }
    for (unsigned i = tree.below(10); i > 0; --i) tree.change();
    volume.rescan();
    expectNothingLeft(volume);
  }
}

}  // namespace
}  // namespace kddc::test
