// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A process leaves what it leaves behind between two calls that change something. One life, the
// same each time, is ended before each of them in turn.
#include "tests/faults/fault_fixture.h"

namespace kddc::faults {
namespace {

struct KilledAtCall : FaultTest {
  // Some hundred changes of every kind, the same each time.
  void change(const std::string& stem) {
    const std::string top = volume + "/" + stem;
    fs::create_directories(top + "/sub");
    for (int i = 0; i < 40; ++i) {
      const std::string name = top + "/" + std::to_string(i);
      std::ofstream(name) << "text";
      if (i % 4 == 0) fs::rename(name, top + "/sub/moved" + std::to_string(i));
      if (i % 4 == 1) fs::create_hard_link(name, top + "/sub/link" + std::to_string(i));
      if (i % 4 == 2) fs::remove(name);
      if (i % 4 == 3) fs::permissions(name, fs::perms::owner_read);
    }
    fs::rename(top + "/sub", volume + "/" + stem + " sub " + std::to_string(++changes_));
  }

  // Each step as far as the process lives.
  void lifetime(Program& program) {
    const auto lives = [&] { return !program.hasEnded(); };
    program.waitUntil([&] { return isReady(program); });
    change("a");
    if (lives()) run({"flush", volume});
    change("b");
    if (lives()) program.signal(SIGTERM);
    program.finish();
  }
  void live() {
    lifetime(*launchShimmed());
    change("between");
    lifetime(*launchShimmed());
  }
  void beginAnew() const {
    for (const auto& entry : fs::directory_iterator(volume)) fs::remove_all(entry);
    fs::remove_all(state);
  }
  long callsOfALife(unsigned calls) {
    beginAnew();
    shim.count(calls);
    live();
    return shim->counted;
  }

  void killAtEach(unsigned calls, int samples) {
    const long all = callsOfALife(calls);
    const long stride = isLong() ? 1 : std::max(1L, all / samples);
    int killed = 0;
    for (long k = 1 + below(static_cast<int>(stride)); k <= all && !HasFailure(); k += stride) {
      SCOPED_TRACE("killed at call " + std::to_string(k) + " of " + std::to_string(all));
      beginAnew();
      shim.count(calls);
      shim.hit(k % 2 == 0 ? Fault::kTear : Fault::kKill, 0, k, 1, 1);
      live();
      killed += shim->hits > 0;
      const auto program = watch();
      expectExact();
      end(*program);
    }
    tell("of ", all, " calls, every ", stride, ". one: killed ", killed, " times");
  }

 private:
  int changes_ = 0;
};

TEST_F(KilledAtCall, AtAnyWriteOfAnyThreadItIsExactAfterTheNextStart) {
  killAtEach(kWrites, 10);
}
TEST_F(KilledAtCall, AtAnySyncItIsExactAfterTheNextStart) {
  killAtEach(kSyncs, 6);
}
TEST_F(KilledAtCall, AtAnyRenameItIsExactAfterTheNextStart) {
  killAtEach(kRenames, 4);
}
TEST_F(KilledAtCall, AtAnyRemovalOfAFileItIsExactAfterTheNextStart) {
  killAtEach(kUnlinks, 6);
}

}  // namespace
}  // namespace kddc::faults
