// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A translator on a fake volume, and its records as short lines that a person can write:
//
//   CREATE /:a=A x1      the name "a" in the root stands for file A, which has 1 link (in the mask)
//   MKDIR, SYMLINK       the same
//   REMOVE /:a A 0 x0    the name "a" of the root is gone; A has 0 links left
//   RMDIR /:d=A x0
//   RENAME A /:a -> /:b x1
//   SETATTR A x1         STUB and UNSTUB likewise
//   LINKS A 0 x0         a link count: REMOVE in no folder and without a name
//   NOOP
//
// "/" is the root; A, B, C ... are the files in the order in which they were made; "-" is none. A
// name found by listing has "listed" behind it.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "driver/translator.h"
#include "tests/support/fake_disk.h"
#include "tests/support/fake_volume.h"

namespace kddc::test {

inline std::string label(const fsf_fid& fid) {
  if (fid == fsf_fid{}) return "-";
  const unsigned int id = fid.data[4];
  return id == FakeVolume::kRoot ? "/" : std::string(1, static_cast<char>('A' + id - 3));
}

inline std::string lineOf(const FlrJrnCommandRaw& record) {
  const auto& u = record.u;
  const auto at = [](const fsf_fid& folder, const char* name) {
    return label(folder) + ":" + name;
  };
  const std::string mask = " x" + std::to_string(record.mask & 0x3fff) +
                           ((record.mask & 0x4000) != 0 ? " listed" : "") +
                           ((record.mask & 0x8000) != 0 ? " bit15" : "");
  switch (record.cmd) {
    case FLR_JRN_NOOP:
      return "NOOP";
    case FLR_JRN_SETATTR:
      return "SETATTR " + label(u.setattr.fid) + mask;
    case FLR_JRN_STUB:
      return "STUB " + label(u.stub.fid) + u.stub.meta + mask;
    case FLR_JRN_UNSTUB:
      return "UNSTUB " + label(u.unstub.fid) + mask;
    case FLR_JRN_CREATE:
      return "CREATE " + at(u.create.par_fid, u.create.short_name) + "=" + label(u.create.fid) +
             mask;
    case FLR_JRN_MKDIR:
      return "MKDIR " + at(u.mkdir.par_fid, u.mkdir.short_name) + "=" + label(u.mkdir.fid) + mask;
    case FLR_JRN_SYMLINK:
      return "SYMLINK " + at(u.symlink.dst_par_fid, u.symlink.dst_short_name) + "=" +
             label(u.symlink.dst_fid) + mask;
    case FLR_JRN_REMOVE: {
      const std::string links = " " + std::to_string(u.remove.nlink) + mask;
      if (u.remove.par_fid == fsf_fid{} && u.remove.short_name[0] == 0)
        return "LINKS " + label(u.remove.file_fid) + links;
      return "REMOVE " + at(u.remove.par_fid, u.remove.short_name) + " " +
             label(u.remove.file_fid) + links;
    }
    case FLR_JRN_RMDIR:
      return "RMDIR " + at(u.rmdir.par_fid, u.rmdir.short_name) + "=" + label(u.rmdir.dir_fid) +
             mask;
    case FLR_JRN_RENAME:
      return "RENAME " + label(u.rename.src_fid) + " " +
             at(u.rename.src_par_fid, u.rename.src_short_name) + " -> " +
             at(u.rename.dst_par_fid, u.rename.dst_short_name) +
             (u.rename.dst_fid_valid != 0 ? " valid" : "") + mask;
    default:
      return "command " + std::to_string(record.cmd);
  }
}

// What the parser makes of the kernel's bytes.
inline std::vector<Event> parsed(const std::vector<KernelEvent>& events) {
  std::vector<Event> result;
  for (const KernelEvent& event : events)
    EXPECT_TRUE(parseEvents(kernelBytes(event), result))
        << "the fake kernel's event is not understood";
  return result;
}

struct TranslatorTest : testing::Test {
  using Lines = std::vector<std::string>;
  using Work = std::function<void(FakeVolume&)>;

  static constexpr std::uint32_t kNow = 777;
  static constexpr int kOwnPid = 42;

  FakeVolume volume;
  FakeDisk disk{volume};
  Lines lines;
  std::vector<int> failures;
  TranslatorOptions options{kOwnPid, {}, [] { return kNow; }};
  // Sees each record before its strings go.
  std::function<void(const FlrJrnCommandRaw&)> onRecord = [](const FlrJrnCommandRaw&) {};

  Translator make() {
    return {disk,
            options,
            {[this](const FlrJrnCommandRaw& record) {
               onRecord(record);
               lines.push_back(lineOf(record));
             },
             [this](int error) { failures.push_back(error); }}};
  }
  Lines taken() { return std::exchange(lines, {}); }

  // The volume's events up to now never happened.
  void forgetEvents() { volume.read(); }
  // What one read of everything queued gives.
  Lines translate() {
    make().translate(parsed(volume.read()));
    return taken();
  }
};

}  // namespace kddc::test
