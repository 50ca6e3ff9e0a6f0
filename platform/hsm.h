// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the storage management of the host knows: which files are stubs, and whether changes can be
// followed live.
//
// A stub is a regular file that carries the extended attribute named by the key "StubAttribute" of
// section "DataClassification" (default "trusted.hsm.stub"). It is looked at by its identifier and
// never opened for its data, so asking brings nothing back.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "platform/export.h"
#include "platform/file_id.h"

// Threads: an object is used by one thread at a time; SetProbe may be called at any time.
class KDDC_API RQHSMLowLevelRQFS {
 public:
  // Answers in place of isStub, with its arguments and its results.
  using Probe = std::function<int(unsigned long long, const fsf_fid&)>;

  // 1: a stub; 0: anything else that exists; negative: an errno, such as -ESTALE when the file is
  // gone, -ENODEV when no mounted file system has the device number `devt` (st_dev of its files),
  // or -EPERM without CAP_DAC_READ_SEARCH. KdException when the settings or the mount table cannot
  // be read. The attribute's name is read at the first call.
  int isStub(unsigned long long devt, const fsf_fid& fid);

  // Replaces the check for every object of the process and returns the probe before; an empty one
  // is the real check. A call under way ends with the probe it began with.
  static Probe SetProbe(Probe probe);

 private:
  int openMount(unsigned long long devt);

  std::string attribute_;
  // Where a device was found mounted. Paths, because a descriptor would keep it from being
  // unmounted.
  std::map<unsigned long long, std::string> mountPoints_;
};

struct KDDC_API RQHSMServiceHelper {
  // Whether this process can follow changes live: the kernel is new enough and the process holds
  // CAP_SYS_ADMIN and CAP_DAC_READ_SEARCH, both outside of any user namespace. Leaves nothing
  // behind. Says nothing about a particular volume: some file systems still cannot be followed.
  static bool IsFSFDriverLoaded();
};
