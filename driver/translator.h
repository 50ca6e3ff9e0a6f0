// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Turns events of the kernel, and questions of others, into journal records.
//
//   events, requests ─► Translator ─► records
//                          │ ▲
//                          ▼ │ looks
//                          Disk
//
// WHY IT LOOKS. The kernel merges an event into an equal one that is still queued, at that one's
// place, so neither the order of events nor their bits tell what happened last. But each event is
// raised after its change can be seen, and what we look at, we look at after the event was taken
// off the queue. A change after our look raises an event that we have yet to read. So when the
// queue is empty, every name and every file was looked at after its last change, and the records
// say how the disk is. Events only say where to look: CREATE and DELETE at a name, RENAME at two,
// all others at a file. The names that come with those others are hints for people, and often
// wrong.
//
// WHAT IT SAYS. One batch (what one read gave) looks at each name and each file once, and says of
//   a name that stands for L     MKDIR, SYMLINK or else CREATE of L: whether L is new or this is
//                                one more name of it, only the catalogue knows. Then the attributes
//                                of L
//   a name that stands for none  REMOVE, or RMDIR when the event was a folder's, with the file that
//                                the event spoke of and the links that this has left
//   a RENAME that holds good     RENAME: the new name stands for the file, the old one does not. It
//                                does not tell what was replaced: that the catalogue knows. Only
//                                when the batch has not yet spoken of either name
//   any other RENAME             both names as above, the new one first
//   the attributes of X          SETATTR with everything; of a regular file STUB after it when it
//                                is one, UNSTUB when it is none and may have been (its event had
//                                ATTRIB)
//   an X that is gone            a link count: REMOVE in no folder (zero) and without a name, whose
//                                nlink is 0. A count of 16383 or more is told so, too
// After the names of a batch come the attributes of the files that its events spoke of and of the
// folders of its names, because no event tells that a folder changed along with its names.
//
// MASK of a record: RecordMask; the link count is 0 when the object is gone. TIMESTAMP: the low 32
// bits of the object's ctime, in seconds; the present time when it is gone.
//
// Dropped are events of our own process and those on names in folders that are left out (also
// changes of files through such names). A look that fails gives no record and is reported instead.
//
// Ownership: strings of a record are valid during the call that hands it over. Threads: one thread
// at a time. Failures: an exception of the output leaves the call; what the batch had still to say
// is lost, and the next call starts afresh.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "driver/disk.h"
#include "driver/event.h"
#include "records/journal_record.h"

namespace kddc {

struct TranslatorOptions {
  int ownPid = -1;                // whose events are dropped
  std::vector<fsf_fid> leaveOut;  // the folders whose events are dropped
  std::function<std::uint32_t()> now;
};

struct TranslatorOutput {
  std::function<void(const FlrJrnCommandRaw&)> record;  // devt and seq_num are not set
  // Something could not be found out, `error` is an errno: the catalogue may be wrong there.
  std::function<void(int error)> failedLook;
};

class Translator {
 public:
  Translator(Disk& disk, TranslatorOptions options, TranslatorOutput output);
  ~Translator();

  // The events of one read. Overflows and errors of the file system are not its business.
  void translate(std::span<const Event> batch);

  // Says what a name stands for; the file that went from it, and so its link count, is not known.
  void look(const fsf_fid& folder, const std::string& name);
  // Says how a file is.
  void lookAt(const fsf_fid& fid);
  // Says that a file is gone, or that none of its names lies in a volume: a link count of 0, while
  // the mask tells the links it has elsewhere. False, and nothing said, when it lies inside: then
  // an event that gives it a name is on its way, or its record is, and the question is to be asked
  // again after that. From the second time on the names that lead to it are said: whoever asks may
  // be far behind with what was said before. When they cannot be told the last time, that is
  // reported as a failed look (ETIMEDOUT): a name was missed. Inside means below that root, below
  // any when none is named.
  enum class Try { kFirst, kAgain, kLast };
  bool resolve(const fsf_fid& fid, Try which = Try::kFirst, const fsf_fid* root = nullptr);

  // Lists a folder with all below it, in slices, so that events are not kept waiting. list() puts a
  // folder on the list of those to be read, listSome() says about that many names and returns
  // whether something is left.
  void list(const fsf_fid& folder);
  bool listSome(std::size_t names);

  // A record that says nothing.
  void noop();

  // From now on this folder's events are dropped, too.
  void leaveOut(const fsf_fid& folder) { options_.leaveOut.push_back(folder); }

 private:
  using Name = std::pair<fsf_fid, std::string>;
  struct NameHash;
  struct Said;  // what was looked at and said in the batch under way
  class Batch;  // its life

  const Look& lookedUp(const Name& name);
  const Look& lookedAt(const fsf_fid& fid);
  bool isLeftOut(const fsf_fid& folder) const;
  bool concernsUs(const Event& event) const;

  void sayNames(const Event& event);
  void sayRename(const Event& event, const Name& from, const Name& to);
  bool sayMove(const fsf_fid& file, const Name& from, const Name& to);
  void sayName(const Name& name, const fsf_fid& lost, bool wasFolder);
  void sayPresent(const Name& name, const Look& look, bool listed);
  bool sayWayTo(const fsf_fid& fid, const fsf_fid* root);
  void sayAbsent(const Name& name, const fsf_fid& lost, bool wasFolder);
  void sayObjects(const Event& event);
  void sayAttributes(const fsf_fid& fid);
  void sayStub(const Look& look);
  std::size_t listMore();
  void tell(FlrJrnCommandRaw record, const Look& look);

  Disk& disk_;
  TranslatorOptions options_;
  TranslatorOutput output_;
  std::unique_ptr<Said> said_;

  std::vector<fsf_fid> toList_;
  std::unique_ptr<Listing> listing_;
  fsf_fid listed_{};  // the folder of listing_
};

}  // namespace kddc
