// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The bytes come from the kernel, but a handle's length decides how much is copied, so each length
// is checked against what holds it.
#include "driver/event.h"

#include <fcntl.h>
#include <sys/fanotify.h>

#include <cstddef>
#include <cstring>
#include <optional>

#include "platform/file_handle.h"

namespace kddc {
namespace {

using Bytes = std::span<const unsigned char>;

// The T at the start of `bytes`, which is taken off them; none when they are too few.
template <class T>
std::optional<T> take(Bytes& bytes) {
  if (bytes.size() < sizeof(T)) return std::nullopt;
  T value;
  std::memcpy(&value, bytes.data(), sizeof value);
  bytes = bytes.subspan(sizeof value);
  return value;
}

enum class Handle { kThere, kNone, kBad };

// A handle of no bytes stands for no file: an error of the whole file system has one.
Handle takeHandle(Bytes& bytes, fsf_fid& fid) {
  // The number of the file system is passed over: a group follows one.
  if (bytes.size() < sizeof(fanotify_event_info_fid)) return Handle::kBad;
  bytes = bytes.subspan(sizeof(fanotify_event_info_fid));
  const auto length = take<unsigned int>(bytes);
  const auto type = take<int>(bytes);
  if (!length || !type || *length > bytes.size()) return Handle::kBad;
  if (*length == 0) return Handle::kNone;
  if (*length > kMaxHandleBytes || *type < 0 || *type > 0xff) return Handle::kBad;
  fid = {};
  fid.data[0] = static_cast<unsigned char>(*type);
  fid.data[1] = static_cast<unsigned char>(*length);
  std::memcpy(fid.data + 4, bytes.data(), *length);
  bytes = bytes.subspan(*length);
  return Handle::kThere;
}

bool readObject(Bytes info, Event& event) {
  const Handle handle = takeHandle(info, event.object);
  event.hasObject = handle == Handle::kThere;
  return handle != Handle::kBad;
}

bool readName(Bytes info, fsf_fid& folder, std::string& name, bool& has) {
  if (takeHandle(info, folder) != Handle::kThere) return false;
  const auto* end = static_cast<const unsigned char*>(std::memchr(info.data(), 0, info.size()));
  if (end == nullptr || end == info.data()) return false;
  name.assign(info.data(), end);
  has = true;
  return true;
}

bool readError(Bytes info, Event& event) {
  const auto error = take<fanotify_event_info_error>(info);
  if (error) event.error = error->error;
  return error.has_value();
}

// A kind of information that is not known is passed over: a later kernel may add some.
bool readInfo(unsigned char type, Bytes info, Event& event) {
  switch (type) {
    case FAN_EVENT_INFO_TYPE_FID:
      return readObject(info, event);
    case FAN_EVENT_INFO_TYPE_DFID_NAME:
    case FAN_EVENT_INFO_TYPE_OLD_DFID_NAME:
      return readName(info, event.folder, event.name, event.hasName);
    case FAN_EVENT_INFO_TYPE_NEW_DFID_NAME:
      return readName(info, event.newFolder, event.newName, event.hasNewName);
    case FAN_EVENT_INFO_TYPE_ERROR:
      return readError(info, event);
    default:
      return true;
  }
}

bool readInfos(Bytes infos, Event& event) {
  while (!infos.empty()) {
    if (infos.size() < sizeof(fanotify_event_info_header)) return false;
    fanotify_event_info_header header;
    std::memcpy(&header, infos.data(), sizeof header);
    if (header.len < sizeof header || header.len > infos.size()) return false;
    if (!readInfo(header.info_type, infos.first(header.len), event)) return false;
    infos = infos.subspan(header.len);
  }
  return true;
}

// Of a change of a folder itself the kernel tells as of the name "." in it.
void nameFolderItself(Event& event) {
  if (event.hasObject || !event.hasName || event.name != ".") return;
  event.hasObject = true;
  event.object = event.folder;
  event.hasName = false;
  event.name.clear();
}

bool readEvent(const fanotify_event_metadata& metadata, Bytes whole, Event& event) {
  if (metadata.vers != FANOTIFY_METADATA_VERSION) return false;
  if (metadata.metadata_len < sizeof metadata || metadata.metadata_len > whole.size()) return false;
  event.mask = metadata.mask;
  event.pid = metadata.pid;
  if (!readInfos(whole.subspan(metadata.metadata_len), event)) return false;
  nameFolderItself(event);
  return true;
}

}  // namespace

// What is not understood is skipped by its length, so that the events behind it are not lost.
bool parseEvents(std::span<const unsigned char> bytes, std::vector<Event>& events) {
  bool understood = true;
  while (!bytes.empty()) {
    fanotify_event_metadata metadata;
    if (bytes.size() < sizeof metadata) return false;
    std::memcpy(&metadata, bytes.data(), sizeof metadata);
    if (metadata.event_len < sizeof metadata || metadata.event_len > bytes.size()) return false;
    Event event;
    if (readEvent(metadata, bytes.first(metadata.event_len), event))
      events.push_back(std::move(event));
    else
      understood = false;
    bytes = bytes.subspan(metadata.event_len);
  }
  return understood;
}

}  // namespace kddc
