// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "driver/driver.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <system_error>
#include <utility>

#include "platform/failure.h"

namespace kddc {
namespace {

// Some thousand events: what a batch speaks of several times is looked at once.
constexpr std::size_t kReadBytes = 256 * 1024;
constexpr std::size_t kRoomForAnEvent = 4096;  // with less than this left, a read was full
// Naps grow in a burst, which a batch of many events tells of. Longer ones make it dear for the
// kernel to merge: it looks for an equal event among all that wait.
constexpr int kShortNap = 2, kLongNap = 100;  // milliseconds
constexpr std::size_t kManyEvents = 100;
constexpr std::chrono::milliseconds kIdle(100);
// What is asked is served in slices of some milliseconds, so that events need not wait for a long
// list, nor others for a long queue of questions.
constexpr std::uint64_t kRequestsAtOnce = 256;
constexpr std::size_t kNamesAtOnce = 256;
// A short nap apart: who made the change may have to wait for a processor.
constexpr int kResolveTimes = 50;

// None when any root will do.
const fsf_fid* rootOf(const auto& question) {
  return question.root ? &*question.root : nullptr;
}

UniqueFd makeWake() {
  UniqueFd wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!wake) throw std::system_error(errno, std::generic_category(), "cannot make an eventfd");
  return wake;
}

}  // namespace

Driver::Driver(DriverOptions options, DriverSinks sinks, UniqueFd kept)
    : sinks_(std::move(sinks)),
      group_(options.roots.at(0), options.queue, std::move(kept)),
      disk_({options.roots, options.leaveOut, options.stubAttribute}),
      stream_(disk_.device(), options.firstSequence, sinks_.record),
      translator_(disk_,
                  {options.ownPid, options.leaveOut,
                   [] { return static_cast<std::uint32_t>(std::time(nullptr)); }},
                  {[this](const FlrJrnCommandRaw& record) { write(record); },
                   [this](int error) { failedLook(error); }}),
      wake_(makeWake()),
      finished_{0, options.firstSequence},
      buffer_(kReadBytes),
      nap_(kShortNap) {}

void Driver::run() {
  while (!stop_.load(std::memory_order_acquire)) turn();
  drain();
}

void Driver::stop() noexcept {
  stop_.store(true, std::memory_order_release);
  wake();
}

void Driver::wake() noexcept {
  const std::uint64_t one = 1;
  // Fails only when the count is at its end, and then the thread is awake.
  [[maybe_unused]] const ssize_t written = ::write(wake_.get(), &one, sizeof one);
}

// --- Requests of any thread.

std::uint64_t Driver::list(const fsf_fid& folder) {
  return ask({Kind::kList, folder, {}, {}});
}
std::uint64_t Driver::look(const fsf_fid& folder, std::string name) {
  return ask({Kind::kLook, folder, std::move(name), {}});
}
std::uint64_t Driver::lookAt(const fsf_fid& fid) {
  return ask({Kind::kLookAt, fid, {}, {}});
}
std::uint64_t Driver::resolve(const fsf_fid& fid, std::optional<fsf_fid> root) {
  return ask({Kind::kResolve, fid, {}, {}, root});
}
std::uint64_t Driver::barrier(Reached reached) {
  return ask({Kind::kBarrier, {}, {}, std::move(reached)});
}
std::uint64_t Driver::endCapture(Reached reached) {
  return ask({Kind::kEndCapture, {}, {}, std::move(reached)});
}
std::uint64_t Driver::mark(Reached reached) {
  return ask({Kind::kMark, {}, {}, std::move(reached)});
}

std::uint64_t Driver::addRoot(const std::string& path, std::vector<fsf_fid> leaveOut) {
  Request request{Kind::kAddRoot, {}, path, {}};
  request.leaveOut = std::move(leaveOut);
  return ask(std::move(request));
}
std::uint64_t Driver::dropRoot(const fsf_fid& root) {
  return ask({Kind::kDropRoot, root, {}, {}});
}

std::uint64_t Driver::ask(Request request) {
  std::uint64_t number = 0;
  {
    const KdMonitor::Guard guard(monitor_);
    number = request.number = ++lastNumber_;
    requests_.push_back(std::move(request));
  }
  wake();
  return number;
}

Driver::Served Driver::finished() const {
  const KdMonitor::Guard guard(monitor_);
  return finished_;
}

DriverCounts Driver::counts() const {
  return {events_, records_, overflows_, failedLooks_};
}

// --- The thread in run().

void Driver::turn() {
  sinks_.pulse(true);
  wait();
  const std::uint64_t before = stream_.nextSequence(), served = served_;
  nap_ = readBatch() < kManyEvents ? kShortNap : std::min(2 * nap_, kLongNap);
  serveSome(std::max<std::uint64_t>(stream_.nextSequence() - before, kRequestsAtOnce));
  resolveAgain();
  if (stream_.nextSequence() != before || served_ != served) lastSaid_ = Clock::now();
  rest();
  sinks_.pause();
}

// An event is not read at once: those that follow may merge into it while it is queued, which costs
// whoever makes the changes less than waking us for each; in a burst, what is made and removed
// again need not be looked at. Nobody may wait for that.
void Driver::wait() {
  if (!pollFor(patience(), true) || lastReadWasFull_ || hasRequests()) return;
  pollFor(unresolved_.empty() ? nap_ : kShortNap, false);
}

int Driver::patience() const {
  if (lastReadWasFull_ || hasRequests()) return 0;
  if (!unresolved_.empty()) return kShortNap;
  if (!saidSomething_ && !disk_.isHeld()) return -1;
  const auto left = lastSaid_ + kIdle - Clock::now();
  const auto rounded = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return static_cast<int>(std::max<long long>(rounded, 0));
}

// Whether there are events. Any request, and stop(), ends the waiting.
bool Driver::pollFor(int milliseconds, bool events) {
  std::array<pollfd, 2> fds = {{{wake_.get(), POLLIN, 0}, {events ? group_.fd() : -1, POLLIN, 0}}};
  if (poll(fds.data(), fds.size(), milliseconds) <= 0) return false;
  std::uint64_t count = 0;
  if (fds[0].revents != 0 && ::read(wake_.get(), &count, sizeof count) > 0) return false;
  return fds[1].revents != 0;
}

// How many events it was.
std::size_t Driver::readBatch() {
  sinks_.pulse(false);
  const std::size_t length = group_.read(buffer_);
  lastReadWasFull_ = length + kRoomForAnEvent > buffer_.size();
  if (length == 0) return 0;
  batch_.clear();
  const bool understood = parseEvents({buffer_.data(), length}, batch_);
  events_ += batch_.size();
  translator_.translate(batch_);
  if (!understood) sinks_.doubt("the kernel told of changes in a way that is not understood");
  examine(batch_);
  return batch_.size();
}

// After the records of the batch, because what is compared with the disk is then what they made.
void Driver::examine(const std::vector<Event>& events) {
  for (const Event& event : events) {
    if ((event.mask & FAN_Q_OVERFLOW) != 0) {
      ++overflows_;
      sinks_.doubt("the kernel's queue of changes overflowed");
    }
    if ((event.mask & FAN_FS_ERROR) != 0)
      sinks_.doubt("the file system has found an error in itself: " + errnoText(event.error));
  }
}

// What was queued when it began: a writer that never rests cannot keep it. All who had asked by
// then share it, for under load a reading takes longer than it takes to ask again.
void Driver::readQueued() {
  if (current_->number <= readFor_) return;
  const std::uint64_t asked = lastAsked();
  for (std::size_t left = group_.queued(); left > 0;) {
    const std::size_t events = readBatch();
    if (events == 0) break;
    left -= std::min(left, events);
  }
  readFor_ = asked;
}

// Comes to an end only when nothing is queued any more.
void Driver::readAll() {
  while (group_.queued() > 0) readBatch();
}

std::uint64_t Driver::lastAsked() const {
  const KdMonitor::Guard guard(monitor_);
  return lastNumber_;
}

bool Driver::hasRequests() const {
  if (current_) return true;
  const KdMonitor::Guard guard(monitor_);
  return !requests_.empty();
}

bool Driver::takeRequest() {
  if (current_) return true;
  const KdMonitor::Guard guard(monitor_);
  if (requests_.empty()) return false;
  current_ = std::move(requests_.front());
  requests_.pop_front();
  return true;
}

// Until they have taken as much as the reading before, in records: then neither waits for the
// other, however much there is of it. A request that an exception interrupts is served again.
void Driver::serveSome(std::uint64_t share) {
  const std::uint64_t began = stream_.nextSequence();
  for (std::uint64_t i = 0; i + stream_.nextSequence() - began < share && takeRequest(); ++i) {
    sinks_.pulse(false);
    if (!serve(*current_)) continue;
    if (!current_->reached) saidSomething_ = true;  // a barrier has its NOOP
    served_ = current_->number;
    current_.reset();
    publish();
  }
}

// Whether it is served; a long list has to come again.
bool Driver::serve(Request& request) {
  switch (request.kind) {
    case Kind::kList:
      return listSome(request.fid);
    case Kind::kLook:
      translator_.look(request.fid, request.name);
      return true;
    case Kind::kLookAt:
      translator_.lookAt(request.fid);
      return true;
    case Kind::kResolve:
      readQueued();
      if (!translator_.resolve(request.fid, Translator::Try::kFirst, rootOf(request)))
        unresolved_.push_back({request.fid, request.root, request.number, kResolveTimes});
      return true;
    case Kind::kEndCapture:
      endTaking();
      [[fallthrough]];
    case Kind::kBarrier:
      readQueued();
      [[fallthrough]];
    case Kind::kMark:
      request.reached(noop());
      return true;
    case Kind::kAddRoot:
      follow(request);
      return true;
    case Kind::kDropRoot:
      disk_.dropRoot(request.fid);
      return true;
  }
  return true;
}

// Whatever happened in it before was told of as outside.
void Driver::follow(Request& request) {
  for (const fsf_fid& folder : request.leaveOut) {
    disk_.leaveOut(folder);
    translator_.leaveOut(folder);
  }
  try {
    disk_.addRoot(request.name);
  } catch (const std::exception& e) {
    sinks_.doubt("cannot follow " + request.name + ": " + e.what());
  }
}

bool Driver::listSome(const fsf_fid& folder) {
  if (!isListing_) translator_.list(folder);
  isListing_ = true;
  isListing_ = translator_.listSome(kNamesAtOnce);
  return !isListing_;
}

void Driver::resolveAgain() {
  const auto now = Clock::now();
  if (unresolved_.empty() || now - lastTry_ < std::chrono::milliseconds(kShortNap)) return;
  lastTry_ = now;
  for (Unresolved& file : unresolved_) --file.timesLeft;
  const auto resolved = std::erase_if(unresolved_, [&](const Unresolved& file) {
    sinks_.pulse(false);
    using Try = Translator::Try;
    return translator_.resolve(file.fid, file.timesLeft <= 0 ? Try::kLast : Try::kAgain,
                               rootOf(file));
  });
  if (resolved > 0) publish();
}

// Questions count as served in their order: one that is unresolved holds back those behind it.
void Driver::publish() {
  const std::uint64_t number = unresolved_.empty() ? served_ : unresolved_.front().number - 1;
  const KdMonitor::Guard guard(monitor_);
  if (number != finished_.request) finished_ = {number, stream_.nextSequence()};
}

void Driver::rest() {
  if (current_ || Clock::now() - lastSaid_ < kIdle) return;
  if (saidSomething_) noop();
  disk_.letGo();
}

std::uint64_t Driver::noop() {
  const std::uint64_t sequence = stream_.nextSequence();
  translator_.noop();
  saidSomething_ = false;
  return sequence;
}

void Driver::endTaking() {
  if (takesEvents_) group_.unmark();
  takesEvents_ = false;
  readAll();
}

void Driver::drain() {
  endTaking();
  const std::uint64_t sequence = noop();
  for (; takeRequest(); current_.reset())
    if (current_->reached) current_->reached(sequence);
  sinks_.pause();
}

void Driver::write(const FlrJrnCommandRaw& record) {
  if (!stream_.write(record)) return sinks_.doubt("a record is too long to be kept");
  ++records_;
  saidSomething_ = true;
}

void Driver::failedLook(int error) {
  ++failedLooks_;
  sinks_.doubt("a look at the disk failed: " + errnoText(error));
}

}  // namespace kddc
