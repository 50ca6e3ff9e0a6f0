// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A batch is said in two rounds: its names, each with the attributes of what it stands for right
// behind, so that whoever coalesces records by file finds them together; then what else it spoke
// of.
#include "driver/translator.h"

#include <sys/fanotify.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "driver/found_records.h"

namespace kddc {
namespace {

constexpr std::uint64_t kNameBits = FAN_CREATE | FAN_DELETE;

bool isNone(const fsf_fid& fid) {
  return fid == fsf_fid{};
}

// A file that has lost its last name can still be looked at while someone has it open.
bool isThere(const Look& look) {
  return look.sight == Sight::kThere && look.st.st_nlink != 0;
}

bool isThere(const Look& look, const fsf_fid& fid) {
  return isThere(look) && look.fid == fid;
}

unsigned int linksOf(const Look& look) {
  if (!isThere(look)) return 0;
  return static_cast<unsigned int>(std::min<nlink_t>(look.st.st_nlink, 0xffffffff));
}

FoundFile fileOf(const Look& look) {
  return {look.fid, look.st, look.linkText.c_str()};
}

FoundName foundName(const std::pair<fsf_fid, std::string>& name) {
  return {name.first, name.second.c_str()};
}

}  // namespace

struct Translator::NameHash {
  std::size_t operator()(const Name& name) const {
    return FidHash()(name.first) ^ std::hash<std::string>()(name.second);
  }
};

// What was looked at and said in the batch under way.
struct Translator::Said {
  std::unordered_map<Name, Look, NameHash> names;
  std::unordered_map<fsf_fid, Look, FidHash> objects;
  std::unordered_set<Name, NameHash> namesSaid;
  std::unordered_set<fsf_fid, FidHash> objectsSaid;
  std::set<std::pair<fsf_fid, fsf_fid>> foldersOfObjects;  // where they were said to be
  std::unordered_set<fsf_fid, FidHash> attributesChanged;  // ATTRIB: may have been a stub until now
};

class Translator::Batch {
 public:
  explicit Batch(Translator& translator) : translator_(translator) {
    translator_.said_ = std::make_unique<Said>();
  }
  ~Batch() {
    translator_.said_.reset();
    translator_.disk_.forget();
  }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

 private:
  Translator& translator_;
};

Translator::Translator(Disk& disk, TranslatorOptions options, TranslatorOutput output)
    : disk_(disk), options_(std::move(options)), output_(std::move(output)) {}

Translator::~Translator() = default;

void Translator::translate(std::span<const Event> batch) {
  const Batch life(*this);
  std::vector<const Event*> events;
  for (const Event& event : batch)
    if (concernsUs(event)) events.push_back(&event);
  // Before anything is said: names come first, and with each of them whether its file is a stub.
  for (const Event* event : events)
    if ((event->mask & FAN_ATTRIB) != 0 && event->hasObject)
      said_->attributesChanged.insert(event->object);
  for (const Event* event : events) sayNames(*event);
  for (const Event* event : events) sayObjects(*event);
}

bool Translator::concernsUs(const Event& event) const {
  if (event.pid == options_.ownPid) return false;
  if (event.hasObject && isLeftOut(event.object)) return false;
  if (!event.hasName || !isLeftOut(event.folder)) return true;
  return event.hasNewName && !isLeftOut(event.newFolder);
}

bool Translator::isLeftOut(const fsf_fid& folder) const {
  return std::ranges::find(options_.leaveOut, folder) != options_.leaveOut.end();
}

// What a file lost is unknown for a request, and is then no file's identifier.
void Translator::look(const fsf_fid& folder, const std::string& name) {
  const Batch life(*this);
  const Look& found = lookedUp({folder, name});
  if (isThere(found)) said_->attributesChanged.insert(found.fid);
  sayName({folder, name}, {}, false);
}

void Translator::lookAt(const fsf_fid& fid) {
  const Batch life(*this);
  said_->attributesChanged.insert(fid);
  sayAttributes(fid);
}

bool Translator::resolve(const fsf_fid& fid, Try which, const fsf_fid* root) {
  const Batch life(*this);
  const Look& look = lookedAt(fid);
  if (look.sight == Sight::kUnknown) return true;
  const Whereabouts where = isThere(look) ? disk_.whereabouts(fid, root) : Whereabouts::kGone;
  if (where == Whereabouts::kInside) {
    if (which != Try::kFirst && sayWayTo(fid, root)) return true;
    if (which != Try::kLast) return false;
    output_.failedLook(ETIMEDOUT);
  } else if (where == Whereabouts::kUnknown) {
    output_.failedLook(EIO);
  } else {
    tell(noLinksRecord(fid), where == Whereabouts::kGone ? Look() : look);
  }
  return true;
}

// Its folders too: whoever does not know them would drop what is said of the file.
bool Translator::sayWayTo(const fsf_fid& fid, const fsf_fid* root) {
  bool reaches = false;
  for (const Name& name : disk_.wayTo(fid, root)) {
    sayName(name, {}, false);
    reaches = isThere(lookedUp(name), fid);
  }
  return reaches;
}

void Translator::list(const fsf_fid& folder) {
  toList_.push_back(folder);
}

bool Translator::listSome(std::size_t names) {
  const Batch life(*this);
  for (std::size_t done = 0; done < names; ++done) {
    if (!listing_) {
      if (toList_.empty()) return false;
      listed_ = toList_.back();
      toList_.pop_back();
      listing_ = disk_.list(listed_);
    }
    done += listMore();
  }
  return listing_ != nullptr || !toList_.empty();
}

std::size_t Translator::listMore() {
  std::vector<std::string> names;
  const int result = listing_->read(names);
  if (result < 0) output_.failedLook(-result);
  if (names.empty()) listing_.reset();
  for (const std::string& name : names) {
    const Look& look = lookedUp({listed_, name});
    if (!isThere(look)) continue;
    if (S_ISDIR(look.st.st_mode)) toList_.push_back(look.fid);
    sayPresent({listed_, name}, look, true);
  }
  return names.size();
}

void Translator::noop() {
  FlrJrnCommandRaw record{};
  record.cmd = FLR_JRN_NOOP;
  tell(record, Look());
}

const Look& Translator::lookedUp(const Name& name) {
  const auto [known, isNew] = said_->names.try_emplace(name);
  Look& look = known->second;
  if (!isNew) return look;
  look = disk_.lookUp(name.first, name.second);
  if (look.sight == Sight::kUnknown) output_.failedLook(look.error);
  if (look.sight == Sight::kThere) said_->objects.emplace(look.fid, look);
  return look;
}

const Look& Translator::lookedAt(const fsf_fid& fid) {
  const auto [known, isNew] = said_->objects.try_emplace(fid);
  Look& look = known->second;
  if (!isNew) return look;
  look = disk_.lookAt(fid);
  if (look.sight == Sight::kUnknown) output_.failedLook(look.error);
  return look;
}

void Translator::sayNames(const Event& event) {
  const bool isFolder = (event.mask & FAN_ONDIR) != 0;
  const Name name(event.folder, event.name);
  if (event.hasName && event.hasNewName)
    sayRename(event, name, {event.newFolder, event.newName});
  else if (event.hasName && (event.mask & kNameBits) != 0)
    sayName(name, event.object, isFolder);
}

void Translator::sayRename(const Event& event, const Name& from, const Name& to) {
  const bool isFolder = (event.mask & FAN_ONDIR) != 0;
  const bool leaves = isLeftOut(to.first), comes = isLeftOut(from.first);
  if (!leaves && !comes && sayMove(event.object, from, to)) return;
  if (!leaves) sayName(to, event.object, isFolder);
  if (!comes) sayName(from, event.object, isFolder);
}

// False, and nothing said, unless the new name stands for the file and the old one does not. A name
// that the batch has spoken of needs no more; and when the old one was said to be gone, the file
// may be one that nobody has heard of yet: then the new name is better said with all that is known
// of it.
bool Translator::sayMove(const fsf_fid& file, const Name& from, const Name& to) {
  if (said_->namesSaid.contains(to) || said_->namesSaid.contains(from)) return false;
  const Look &after = lookedUp(to), &before = lookedUp(from);
  if (!isThere(after, file) || isThere(before, file) || before.sight == Sight::kUnknown)
    return false;
  output_.record(renameRecord(fileOf(after), foundName(from), foundName(to)));
  said_->namesSaid.insert(to);
  sayAttributes(file);
  // That the old name stands for none was not said: a reader who takes it for another file's keeps
  // it until the event comes that tells of it. That one may stand further back in the batch.
  if (isThere(before)) sayName(from, file, false);
  return true;
}

void Translator::sayName(const Name& name, const fsf_fid& lost, bool wasFolder) {
  if (!said_->namesSaid.insert(name).second) return;
  const Look& look = lookedUp(name);
  if (look.sight == Sight::kUnknown) return;
  if (isThere(look))
    sayPresent(name, look, false);
  else
    sayAbsent(name, lost, wasFolder);
}

// In each folder anew: the one before lies outside of a volume perhaps, and then nobody there knew
// the file yet.
void Translator::sayPresent(const Name& name, const Look& look, bool listed) {
  output_.record(presentRecord(foundName(name), fileOf(look), listed));
  if (said_->foldersOfObjects.emplace(look.fid, name.first).second)
    said_->objectsSaid.erase(look.fid);
  sayAttributes(look.fid);
}

// Which file went is said only when its links are known: without them it would be taken for gone.
void Translator::sayAbsent(const Name& name, const fsf_fid& lost, bool wasFolder) {
  const Look nothing;
  const Look& look = isNone(lost) ? nothing : lookedAt(lost);
  const fsf_fid file = look.sight == Sight::kUnknown ? fsf_fid{} : lost;
  if (wasFolder && !isNone(file))
    tell(absentFolderRecord(foundName(name), file), look);
  else
    tell(absentRecord(foundName(name), file, linksOf(look)), look);
  if (!isThere(look)) said_->objectsSaid.insert(file);
}

void Translator::sayObjects(const Event& event) {
  if (event.hasObject) sayAttributes(event.object);
  if (event.hasName && (event.mask & (kNameBits | FAN_RENAME)) != 0 && !isLeftOut(event.folder))
    sayAttributes(event.folder);
  if (event.hasNewName && !isLeftOut(event.newFolder)) sayAttributes(event.newFolder);
}

void Translator::sayAttributes(const fsf_fid& fid) {
  if (!said_->objectsSaid.insert(fid).second) return;
  const Look& look = lookedAt(fid);
  if (look.sight == Sight::kUnknown) return;
  if (!isThere(look)) return tell(noLinksRecord(fid), look);
  output_.record(attributesRecord(fileOf(look)));
  sayStub(look);
  if (linksOf(look) >= RecordMask::kManyLinks) output_.record(linkCountRecord(fileOf(look)));
}

void Translator::sayStub(const Look& look) {
  if (!S_ISREG(look.st.st_mode)) return;
  if (look.isStub || said_->attributesChanged.contains(look.fid))
    output_.record(stubRecord(fileOf(look), look.isStub));
}

// What is not at a name, or not any more, may still be elsewhere.
void Translator::tell(FlrJrnCommandRaw record, const Look& look) {
  record.mask = RecordMask::of(linksOf(look), false).value();
  record.timestamp = look.sight == Sight::kThere
                         ? static_cast<std::uint32_t>(look.st.st_ctim.tv_sec)
                         : options_.now();
  output_.record(record);
}

}  // namespace kddc
