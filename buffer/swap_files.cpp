// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Every call opens the folder anew: the folder is removed and made again while a queue lives, and
// next to two megabytes of a block one more open counts for nothing.
#include "buffer/swap_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "buffer/open_folder.h"
#include "platform/ev_debug.h"
#include "platform/exceptions.h"

namespace kddc {
namespace {

using Kind = OpenFolder::Kind;

UniqueFd openSwapFile(const std::string& folder, unsigned long long number, int flags,
                      int permissions = 0600) {
  const OpenFolder opened(folder);
  return opened ? opened.file(swapName(number), flags, permissions) : UniqueFd();
}

// How many bytes of `file` a load of `length` bytes ought to bring.
long long wantedBytes(const UniqueFd& file, int length, int blockSize) {
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return 0;
  const long long size = status.st_size;
  return length < blockSize ? std::min<long long>(size, length) : size;
}

// Empties an open folder; false when something in it stays. What is not the queue's stays: the path
// comes from the settings, and a wrong one must not cost anybody a file.
bool emptyFolder(const char* tag, const OpenFolder& folder, const std::string& path);

bool removeSubFolder(const char* tag, const OpenFolder& parent, const std::string& name,
                     const std::string& path) {
  const OpenFolder folder = parent.folder(name);
  if (!folder) throw UDCException(tag, 0, "Unable to Open the Dir", errno);
  if (!emptyFolder(tag, folder, path)) return false;
  dbg.DebugLvl(tag, 2, "rmdir[%s]", path.c_str());
  if (!parent.removeFolder(name))
    dbg.Error(tag, "rmdir failed on [%s] errno[%u]", path.c_str(), static_cast<unsigned>(errno));
  return true;
}

bool emptyFolder(const char* tag, const OpenFolder& folder, const std::string& path) {
  const auto names = folder.names();
  if (!names) throw UDCException(tag, 0, "Unable to Open the Dir", errno);
  bool empty = true;
  for (const std::string& name : *names) {
    std::string full = path;
    full.append("/").append(name);
    const Kind kind = folder.kindOf(name);
    if (kind == Kind::kNone) continue;  // gone since the folder was listed
    if (kind == Kind::kFolder) {
      empty &= removeSubFolder(tag, folder, name, full);
    } else if (isSwapName(name) || isStateName(name)) {
      folder.removeFile(name);  // what stays keeps the folder in place, which is told then
    } else {
      dbg.Error(tag, "Encountered file [%s] not in swap format", full.c_str());
      empty = false;
    }
  }
  return empty;
}

}  // namespace

std::string swapName(unsigned long long number) {
  return "swap." + std::to_string(number);
}

bool isSwapName(std::string_view name) {
  return name.size() > 4 && name.starts_with("swap");
}

bool isStateName(std::string_view name) {
  return name == kDriverIndicator || name == kDbIndicator || name == kClosedDbs;
}

UniqueFd createSwapFile(const std::string& folder, unsigned long long number, int permissions) {
  return openSwapFile(folder, number, O_WRONLY | O_CREAT | O_TRUNC, permissions);
}

bool removeSwapFile(const char* tag, const std::string& folder, unsigned long long number) {
  const std::string name = swapName(number);
  const OpenFolder opened(folder);
  if (opened && opened.removeFile(name)) return true;
  dbg.Error(tag, "unlink failed on [%s/%s] errno[%u]", folder.c_str(), name.c_str(),
            static_cast<unsigned>(errno));
  return false;
}

Loaded loadSwapFile(const char* tag, const std::string& folder, unsigned long long number,
                    InMemoryBuffer& block, int length, int blockSize) {
  const std::string path = folder + "/" + swapName(number);
  const UniqueFd file = openSwapFile(folder, number, O_RDONLY);
  if (!file) {
    const int error = errno;
    dbg.Error(tag, "could not open %s", path.c_str());
    throw UDCException(tag, 0, "swap file open failed", error);
  }
  const long long wanted = wantedBytes(file, length, blockSize);
  const int bytes = block.Load(file.get(), length);
  if (bytes < wanted)
    dbg.Error(tag, "Swap file [%s] is damaged: %lld bytes of %lld are lost", path.c_str(),
              wanted - bytes, wanted);
  return {bytes, bytes >= wanted};
}

bool syncSwapFile(const std::string& folder, unsigned long long number) {
  const UniqueFd file = openSwapFile(folder, number, O_RDONLY);
  return !file || ::fsync(file.get()) == 0;
}

bool removeSwapFolder(const char* tag, const std::string& path) {
  const OpenFolder folder(path);
  if (!folder) throw UDCException(tag, 0, "Unable to Open the Dir", errno);
  if (!emptyFolder(tag, folder, path)) return false;
  dbg.DebugLvl(tag, 2, "rmdir[%s]", path.c_str());
  if (::rmdir(path.c_str()) != 0)
    dbg.Error(tag, "rmdir failed on [%s] errno[%u]", path.c_str(), static_cast<unsigned>(errno));
  return true;
}

}  // namespace kddc
