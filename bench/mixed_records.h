// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Records of all kinds, as a busy volume sends them.
#pragma once

#include <iterator>

#include "bench/journal_stream.h"

namespace kddc::bench {

// An editor saves a file by way of a new one, and a program makes a temporary file.
inline void workOn(Volume& v, unsigned row) {
  const unsigned folder = Tree::parent(row), saved = v.newNumber(), temporary = v.newNumber();
  v.create(folder, "saved~", saved);
  v.setAttr(saved);
  v.renameOver(saved, "saved~", row);
  v.setAcl(saved);
  v.setAttr(saved);
  v.create(folder, "temporary", temporary);
  v.setAttr(temporary);
  v.remove(folder, "temporary", temporary);
}

inline void packAndUnpack(Volume& v, unsigned row) {
  const unsigned folder = Tree::parent(row), made = v.newNumber(), inside = v.newNumber();
  v.mkDir(folder, "unpacked.tmp", made);
  v.create(folder, "inside", inside);
  v.rename(made, folder, "unpacked.tmp", folder, "unpacked");
  v.remove(folder, "inside", inside);
  v.rmDir(folder, "unpacked", made);
}

inline void linkAndUnlink(Volume& v, unsigned row) {
  const unsigned folder = Tree::parent(row), symbolic = v.newNumber();
  v.link(v.numberOf(row), folder, "second name");
  v.setAttr(v.numberOf(row));
  v.remove(folder, "second name", v.numberOf(row), 1);
  v.symLink(folder, "symbolic", symbolic);
  v.remove(folder, "symbolic", symbolic);
}

inline void moveDataAway(Volume& v, unsigned row) {
  v.stub(v.numberOf(row));
  v.unStub(v.numberOf(row));
}

// In the end the catalogue is as large as it was.
inline void mix(Volume& v) {
  static constexpr void (*kRarer[])(Volume&, unsigned) = {packAndUnpack, linkAndUnlink,
                                                          moveDataAway};
  const unsigned row = v.file();
  workOn(v, row);
  kRarer[row % std::size(kRarer)](v, row);
}

}  // namespace kddc::bench
