// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/verification.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "agent/engine/catalogue_folder.h"
#include "agent/errors.h"
#include "platform/exceptions.h"

namespace kddc {
namespace {

// Where nobody keeps the catalogue, only an entry that vanished under our hands needs another one.
constexpr int kMostRounds = 8, kMostRoundsUnkept = 2;
// From how many suspects on an index of names is worth making.
constexpr std::size_t kMuch = 1000;
constexpr int kPlatformType = 5;  // of an exception: not the catalogue's fault

using Suspects = std::set<Suspect>;
using Kind = Suspect::Kind;

// The whole comparison, and what it finds to be looked at again.
class FirstLook {
 public:
  FirstLook(const VerificationPlan& plan, CatalogueCopy& copy) : plan_(plan), db_(copy.rows()) {}

  Suspects run() {
    const ComparisonLog log([&](std::string_view line) { notePaths(line); },
                            [&] { isDisturbed_ = true; });
    try {
      db_.Verify(plan_.volume);
    } catch (const UDCException& e) {
      if (e.GetType() != kPlatformType) throw;
      isDisturbed_ = true;
    }
    if (isDisturbed_) walk();
    return std::move(suspects_);
  }

 private:
  struct Folder {
    std::string path;
    unsigned long long inode;
  };
  struct Close {
    void operator()(DIR* folder) const { closedir(folder); }
  };

  void notePaths(std::string_view line);
  void walk();
  void lookInto(const Folder& folder);
  void meet(const std::string& path, const char* name, unsigned long long folder);
  std::string whole(const std::string& path) const {
    return path.empty() ? plan_.volume : plan_.volume + "/" + path;
  }

  const VerificationPlan& plan_;
  OpenCopy& db_;
  bool isDisturbed_ = false;
  std::deque<Folder> queue_;
  Suspects suspects_;
};

// A name may hold what ends the path of a line, so every end counts: a path that is none agrees.
void FirstLook::notePaths(std::string_view line) {
  const std::size_t begin = line.find("[" + plan_.volume);
  if (begin == std::string_view::npos || line.starts_with("Query[")) return;
  const std::string_view rest = line.substr(begin + 1 + plan_.volume.size());
  for (std::size_t end = rest.find("] "); end != std::string_view::npos;
       end = rest.find("] ", end + 1)) {
    const std::string_view path = rest.substr(0, end);
    if (path.empty() || path.starts_with('/'))
      suspects_.insert({Kind::kPath, std::string(path.substr(path.empty() ? 0 : 1))});
  }
}

// The comparison stops where an entry vanishes under its hands. Then the marks are taken away, and
// each entry is compared by itself, so that one that vanishes costs no other.
void FirstLook::walk() {
  db_.fids().exec_query("UPDATE FIDS SET RESCAN=0");
  db_.files().exec_query("UPDATE FILES SET GID=0");
  meet("", plan_.volume.c_str(), 0);
  for (; !queue_.empty(); queue_.pop_front()) lookInto(queue_.front());
}

void FirstLook::lookInto(const Folder& folder) {
  const std::string path = whole(folder.path);
  const std::unique_ptr<DIR, Close> names(opendir(path.c_str()));
  if (!names && (leadsNowhere(errno) || errno == ENAMETOOLONG)) {
    suspects_.insert({Kind::kPath, folder.path});
    return;
  }
  if (!names) throw systemFailure("cannot read the folder " + path, errno);
  // Only errno tells a failure from the end; what is met in between may set it, too.
  errno = 0;
  for (const dirent* entry; (entry = readdir(names.get())); errno = 0) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    meet((folder.path.empty() ? "" : folder.path + "/").append(name), entry->d_name, folder.inode);
  }
  if (errno != 0) throw systemFailure("cannot read the folder " + path, errno);
}

void FirstLook::meet(const std::string& path, const char* name, unsigned long long folder) {
  const std::string full = whole(path);
  struct stat st {};
  unsigned long long inode = 0;
  try {
    if (lstat(full.c_str(), &st) != 0)
      suspects_.insert({Kind::kPath, path});
    else if (!S_ISDIR(st.st_mode))
      db_.VerifyFile(full, folder, name, st);
    else if (db_.VerifyFolder(full, folder, name, inode, st))
      queue_.push_back({path, inode});
  } catch (const UDCException& e) {
    if (e.GetType() != kPlatformType) throw;
    suspects_.insert({Kind::kPath, path});  // it vanished under our hands
  }
}

// The rows that nothing on the disk claimed.
void addUnclaimed(CatalogueCopy& copy, const std::string& volume, Suspects& suspects) {
  copy.rows().Commit();  // the marks are read by another connection
  FreshLook look(copy, volume);
  const auto add = [&](std::int64_t inode, Suspect otherwise) {
    if (auto path = look.pathOf(inode))
      suspects.insert({Kind::kPath, *std::move(path)});
    else
      suspects.insert(std::move(otherwise));
  };
  const ReadConnection files(copy.folder() + kFilesDatabase), fids(copy.folder() + kFidDatabase);
  Query unclaimed(files, "SELECT INODE FROM FILES WHERE GID IS NOT 1");
  while (unclaimed.step()) add(unclaimed.integer(0), {Kind::kFilesRow, "", unclaimed.integer(0)});
  Query identifiers(fids, "SELECT FIDS_ROWID,FILES_ROWID FROM FIDS WHERE RESCAN IS NOT 1");
  while (identifiers.step()) {
    const Suspect row{Kind::kFidsRow, "", identifiers.integer(0)};
    suspects.insert(row);
    add(identifiers.integer(1), row);
  }
}

// Suspects that are looked at until they are settled.
class Settling {
 public:
  Settling(const VerificationPlan& plan, const Suspects& suspects) : plan_(plan) {
    for (const Suspect& suspect : suspects) open_.push_back({suspect, 0, {}, {}});
  }

  void run(VerificationResult& result, const std::function<bool()>& tick) {
    int most = kMostRounds;
    for (int round = 0; round < most && !open_.empty(); ++round)
      most = lookAgain(tick) ? kMostRounds : kMostRoundsUnkept;
    result.unsettled = open_.size();
    result.differing = std::move(differing_);
    std::ranges::sort(result.differing, {}, &Differing::suspect);
  }

 private:
  struct Open {
    Suspect suspect;
    int seen;  // how often it was seen to differ
    std::optional<Sight> before;
    Differences differences;
  };
  enum class Verdict { kAgrees, kDiffers, kOpen };

  Sight see(const Suspect& suspect) const {
    return Sight(plan_.volume, suspect.path, plan_.leftOut);
  }
  // Whether the catalogue is kept current.
  bool lookAgain(const std::function<bool()>& tick);
  Verdict judge(FreshLook& look, Open& open, bool isKept) const;
  Differences differencesOf(FreshLook& look, const Suspect& suspect, const Sight& now) const;

  const VerificationPlan& plan_;
  std::vector<Open> open_;
  std::vector<Differing> differing_;
};

// Look, let the catalogue catch up, look into a copy of it: an entry that is the same before and
// after was the same while its row was read, so a difference is none of the delay.
bool Settling::lookAgain(const std::function<bool()>& tick) {
  for (Open& open : open_)
    if (open.suspect.kind == Kind::kPath) open.before = see(open.suspect);
  const bool isKept = plan_.flush();
  CatalogueCopy copy(plan_.catalogue, plan_.copies, tick);
  if (open_.size() > kMuch) copy.rows().makeIndexOfNames();
  FreshLook look(copy, plan_.volume);
  std::erase_if(open_, [&](Open& open) {
    if (!tick()) throw Failure("interrupted");
    const Verdict verdict = judge(look, open, isKept);
    if (verdict == Verdict::kDiffers)
      differing_.push_back({open.suspect, std::move(open.differences)});
    return verdict != Verdict::kOpen;
  });
  return isKept;
}

// What still changes stays open. What holds still is believed when it has differed in two rounds.
Settling::Verdict Settling::judge(FreshLook& look, Open& open, bool isKept) const {
  const Sight now = see(open.suspect);
  if (!now.isKnown()) return Verdict::kOpen;
  try {
    open.differences = differencesOf(look, open.suspect, now);
  } catch (const KdException&) {
    return Verdict::kOpen;
  } catch (const UDCException& e) {
    if (e.GetType() != kPlatformType) throw;
    return Verdict::kOpen;
  }
  if (open.differences.empty()) return Verdict::kAgrees;
  if (!isKept) return Verdict::kDiffers;
  if (open.before && !(open.before->isStill(now) && now.isStill(see(open.suspect)))) {
    open.seen = 0;
    return Verdict::kOpen;
  }
  return ++open.seen > 1 ? Verdict::kDiffers : Verdict::kOpen;
}

Differences Settling::differencesOf(FreshLook& look, const Suspect& suspect,
                                    const Sight& now) const {
  switch (suspect.kind) {
    case Kind::kFilesRow:
      return look.ofFilesRow(suspect.row);
    case Kind::kFidsRow:
      return look.ofFidsRow(suspect.row);
    default:
      return look.at(suspect.path, now);
  }
}

std::uint64_t count(OpenCopy& db, const char* sql) {
  db.files().exec_query_get_table(sql);
  return std::stoull(db.files().table[1]);
}

}  // namespace

VerificationResult verifyVolume(const VerificationPlan& plan) {
  VerificationResult result;
  Suspects suspects;
  {
    // Each row is changed twice: all marks are taken away at once, and then set one by one.
    const OpenCopy* db = nullptr;
    std::uint64_t rows = 0;
    CatalogueCopy copy(plan.catalogue, plan.copies, [&] {
      const std::uint64_t changes = db ? db->changes() : 0;
      return plan.proceed(changes - std::min(changes, rows));
    });
    rows = count(copy.rows(), "SELECT COUNT(*) FROM FILES");
    db = &copy.rows();
    FreshLook(copy, plan.volume)
        .eachOther(
            [&](const std::string& path) {
              suspects.insert({Kind::kPath, path});
            },
            [&] { return plan.proceed(0); });
    suspects.merge(FirstLook(plan, copy).run());
    addUnclaimed(copy, plan.volume, suspects);
    result.compared = count(copy.rows(), "SELECT COUNT(*) FROM FILES WHERE GID=1");
  }
  Settling(plan, suspects).run(result, [&] { return plan.proceed(result.compared); });
  return result;
}

}  // namespace kddc
