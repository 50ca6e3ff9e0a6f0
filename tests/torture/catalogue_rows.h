// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The rows of a catalogue, read with plain SQLite and without asking the library what they mean.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/torture/tree.h"

namespace kddc::torture {

struct FilesRow {
  std::int64_t inode, parent, fidRow;
  std::string name;
  Facts facts;  // without the identifier, which FIDS has
};

struct FidsRow {
  std::int64_t number, filesRow;
  std::string fid;
};

struct CatalogueRows {
  std::vector<FilesRow> files;
  std::vector<FidsRow> fids;
};

class RowReader {
 public:
  RowReader(const std::string& path, const char* sql) {
    sqlite3* db = nullptr;
    const int opened = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    db_.reset(db);
    sqlite3_stmt* statement = nullptr;
    if (opened != SQLITE_OK || sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK)
      throw std::runtime_error("cannot read " + path + ": " + sqlite3_errmsg(db));
    statement_.reset(statement);
  }

  bool next() {
    const int step = sqlite3_step(statement_.get());
    if (step != SQLITE_ROW && step != SQLITE_DONE)
      throw std::runtime_error(sqlite3_errmsg(db_.get()));
    return step == SQLITE_ROW;
  }
  std::int64_t number(int column) const { return sqlite3_column_int64(statement_.get(), column); }
  // Stored as signed, meant as unsigned.
  std::uint32_t word(int column) const { return static_cast<std::uint32_t>(number(column)); }
  // Byte for byte, whatever type SQLite gave the value.
  std::string bytes(int column) const {
    const void* data = sqlite3_column_blob(statement_.get(), column);
    const int length = sqlite3_column_bytes(statement_.get(), column);
    return {static_cast<const char*>(data), static_cast<std::size_t>(length)};
  }

 private:
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> db_{nullptr, sqlite3_close_v2};
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement_{nullptr, sqlite3_finalize};
};

inline std::vector<FilesRow> readFiles(const std::string& catalogue) {
  RowReader reader(catalogue + "/.db.kd",
                   "SELECT INODE,PINODE,FID_ROWID,NAME,FILE_TYPE,MODE,UID,GID,NLINK,SIZE,MTIME "
                   "FROM FILES ORDER BY INODE");
  std::vector<FilesRow> rows;
  while (reader.next())
    rows.push_back({reader.number(0),
                    reader.number(1),
                    reader.number(2),
                    reader.bytes(3),
                    {static_cast<int>(reader.number(4)), reader.word(5), reader.word(6),
                     reader.word(7), reader.word(8), reader.number(9), reader.word(10), ""}});
  return rows;
}

inline std::vector<FidsRow> readFids(const std::string& catalogue) {
  constexpr int kPieces = 4, kPieceBytes = 6;
  RowReader reader(catalogue + "/.fid.kd",
                   "SELECT FIDS_ROWID,FILES_ROWID,FID1,FID2,FID3,FID4 FROM FIDS "
                   "ORDER BY FIDS_ROWID");
  std::vector<FidsRow> rows;
  while (reader.next()) {
    std::string bytes;
    for (int piece = 0; piece < kPieces; ++piece)
      for (int i = 0; i < kPieceBytes; ++i)
        bytes += static_cast<char>(reader.number(2 + piece) >> (8 * i) & 0xff);
    rows.push_back({reader.number(0), reader.number(1), hexOf(bytes)});
  }
  return rows;
}

// FILES first: a writer commits identifiers before the rows that they name.
inline CatalogueRows readCatalogue(const std::string& catalogue) {
  CatalogueRows rows;
  rows.files = readFiles(catalogue);
  rows.fids = readFids(catalogue);
  return rows;
}

}  // namespace kddc::torture
