// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A fake volume as the disk that the driver asks. Left out are the folders in `leaveOut`. Counts
// what it was asked, and answers with an error where a test says so.
#pragma once

#include <cerrno>
#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "driver/disk.h"
#include "records/fsf_fid.h"
#include "tests/support/fake_volume.h"

namespace kddc::test {

class FakeDisk : public Disk {
 public:
  explicit FakeDisk(FakeVolume& volume) : root(volume.fid("")), volume_(volume) {}

  fsf_fid root;                                      // of the watched volume, for whereabouts
  std::set<fsf_fid> leaveOut;                        // absent
  std::set<std::string> unknownNames;                // looking these up fails with EIO
  std::set<fsf_fid> unknownFiles;                    // so do these
  std::vector<std::pair<fsf_fid, std::string>> way;  // to whatever file
  std::size_t namesAtOnce = 2;                       // in one read of a listing
  std::size_t looksUp = 0, looksAt = 0, forgotten = 0;

  Look lookUp(const fsf_fid& folder, const std::string& name) override {
    ++looksUp;
    if (unknownNames.contains(name)) return unknown();
    const auto fid = volume_.lookUp(folder, name);
    return fid ? seen(*fid) : Look();
  }
  Look lookAt(const fsf_fid& fid) override {
    ++looksAt;
    return seen(fid);
  }
  std::unique_ptr<Listing> list(const fsf_fid& folder) override {
    std::vector<std::string> names;
    if (const FakeVolume::Node* node = volume_.node(folder))
      for (const auto& [name, id] : node->names) names.push_back(name);
    const int error = unknownFiles.contains(folder) ? EIO : 0;
    return std::make_unique<Names>(std::move(names), namesAtOnce, error);
  }
  Whereabouts whereabouts(const fsf_fid& fid, const fsf_fid* asked) override {
    if (unknownFiles.contains(fid)) return Whereabouts::kUnknown;
    if (volume_.node(fid) == nullptr) return Whereabouts::kGone;
    for (const fsf_fid& folder : leaveOut)
      if (volume_.isBelow(fid, folder)) return Whereabouts::kOutside;
    return volume_.isBelow(fid, asked ? *asked : root) ? Whereabouts::kInside
                                                       : Whereabouts::kOutside;
  }
  std::vector<std::pair<fsf_fid, std::string>> wayTo(const fsf_fid&, const fsf_fid*) override {
    return way;
  }
  void forget() override { ++forgotten; }

 private:
  class Names : public Listing {
   public:
    Names(std::vector<std::string> names, std::size_t atOnce, int error)
        : names_(std::move(names)), atOnce_(atOnce), error_(error) {}
    int read(std::vector<std::string>& names) override {
      names.clear();
      if (error_ != 0) return -error_;
      while (next_ < names_.size() && names.size() < atOnce_) names.push_back(names_[next_++]);
      return static_cast<int>(names.size());
    }

   private:
    std::vector<std::string> names_;
    std::size_t atOnce_, next_ = 0;
    int error_;
  };

  static Look unknown() {
    Look look;
    look.sight = Sight::kUnknown;
    look.error = EIO;
    return look;
  }
  Look seen(const fsf_fid& fid) const {
    if (unknownFiles.contains(fid)) return unknown();
    const FakeVolume::Node* node = volume_.node(fid);
    if (node == nullptr || leaveOut.contains(fid)) return {};
    return {Sight::kThere, 0, fid, node->st, node->linkText, node->isStub};
  }

  FakeVolume& volume_;
};

}  // namespace kddc::test
