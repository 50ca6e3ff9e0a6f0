// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The driver of one file system on its thread, and what its volumes ask of it.
//
// The thread works until `end`; what leaves the driver as an exception (the queue cannot take a
// record) is reported as a doubt, and the driver goes on with what the kernel has queued.
//
// Threads: a VolumePort, and `driver` as driver.h says, from any; the rest from the owner's.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "agent/live/kept_queue.h"
#include "agent/live/staged_records.h"
#include "agent/live/volume_rows.h"
#include "agent/service/service_manager.h"
#include "driver/driver.h"

namespace kddc {

class DriverPort {
 public:
  // Marks the file system: from now on no change is missed. When the process before has crashed,
  // none has been missed since it did. Throws CannotWatch.
  DriverPort(DriverOptions options, DriverSinks sinks, ServiceManager& manager);
  ~DriverPort() { end(); }

  // Starts the thread.
  void start();
  // Ends the thread: what the kernel has queued is still said.
  void end();
  bool hasEnded() const { return ended_; }

  Driver& driver() { return driver_; }

 private:
  void run();

  std::function<void(const std::string&)> doubt_;
  StagedRecords staged_;
  KeptQueue kept_;
  Heartbeat::Pulse pulse_;
  Driver driver_;
  std::atomic<bool> ending_ = false, ended_ = false;
  std::thread thread_;
};

// What one volume asks; what lies in another volume on the file system lies outside of it.
class VolumePort : public DriverQuestions {
 public:
  VolumePort(std::shared_ptr<DriverPort> port, const fsf_fid& root)
      : port_(std::move(port)), driver_(port_->driver()), root_(root) {}

  void list(const fsf_fid& folder) override { note(driver_.list(folder)); }
  void look(const fsf_fid& folder, const std::string& name) override {
    note(driver_.look(folder, name));
  }
  void lookAt(const fsf_fid& file) override { note(driver_.lookAt(file)); }
  std::uint64_t resolve(const fsf_fid& file) override { return note(driver_.resolve(file, root_)); }
  // When the driver has ended nothing is answered any more.
  bool isAnswered(std::uint64_t question) const override {
    return port_->hasEnded() || driver_.finished().request >= question;
  }

  bool hasEnded() const { return port_->hasEnded(); }
  // The number of the last question.
  std::uint64_t lastQuestion() const { return lastQuestion_; }
  Driver& driver() { return driver_; }
  DriverPort& port() { return *port_; }
  const fsf_fid& root() const { return root_; }

 private:
  std::uint64_t note(std::uint64_t question);

  std::shared_ptr<DriverPort> port_;
  Driver& driver_;
  fsf_fid root_;
  std::atomic<std::uint64_t> lastQuestion_ = 0;
};

}  // namespace kddc
