// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a process that was stopped has saved of its queue is damaged before the next one starts.
#include "platform/file_handle.h"
#include "tests/faults/fault_fixture.h"
#include "tests/support/unread_pipe.h"

namespace kddc::faults {
namespace {

struct SavedQueue : FaultTest {
  const std::string kept = temp / "kept";
  torture::Inodes before;

  void SetUp() override {
    FaultTest::SetUp();
    if (!IsSkipped()) saveAQueue();
  }

  // A reader of what is printed who does not read holds the database thread, so that records are
  // left when the second signal comes.
  void saveAQueue() {
    work(100);
    stop(*watch());
    before = inodes();
    test::UnreadPipe printed;
    const auto program = launch({volume, "--print"}, printed.asOutput());
    while (printed.line() != "ready\n") {
      ASSERT_FALSE(program->hasEnded()) << program->err();
    }
    for (int i = 0; i < 400; ++i) write("file " + std::to_string(i));
    program->signal(SIGTERM);
    ASSERT_TRUE(program->waitUntil([&] { return marks(*program) == 0; }));
    program->signal(SIGTERM);
    ASSERT_EQ(program->finish().exitCode, 0);
    fs::copy(state, kept, fs::copy_options::recursive);
    ASSERT_FALSE(savedFiles().empty());
    for (int i = 0; i < 20; ++i) write("later " + std::to_string(i));
  }
  std::vector<std::string> savedFiles() const {
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(queueFile("")))
      if (entry.path().filename().string().starts_with("swap.")) files.push_back(entry.path());
    return files;
  }
  // As it was left, but for what `damage` does.
  template <class Damage>
  void expectExactAfter(const Damage& damage) {
    fs::remove_all(state);
    fs::copy(kept, state, fs::copy_options::recursive);
    damage(savedFiles().front());
    const auto program = watch();
    expectExact();
    expectSameInodes(before);
    end(*program);
  }
  static void flip(const std::string& path, std::uintmax_t at, int bits) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekg(static_cast<std::streamoff>(at));
    const int byte = file.get();
    file.seekp(static_cast<std::streamoff>(at));
    file.put(static_cast<char>(byte ^ bits));
  }
};

TEST_F(SavedQueue, ThatIsWholeIsApplied) {
  expectExactAfter([](const std::string&) {});
}

TEST_F(SavedQueue, CutAnywhereIsMadeGood) {
  const std::uintmax_t all = fs::file_size(savedFiles().front());
  const std::uintmax_t step = std::max<std::uintmax_t>(1, all / unsigned(rounds(8, 400)));
  int cuts = 0;
  for (std::uintmax_t at = 0; at < all && !HasFailure(); at += step, ++cuts) {
    SCOPED_TRACE("cut at " + std::to_string(at));
    expectExactAfter([&](const std::string& file) { fs::resize_file(file, at); });
  }
  tell(cuts, " cuts of ", all, " bytes");
}

TEST_F(SavedQueue, WithBytesChangedIsMadeGood) {
  const std::uintmax_t all = fs::file_size(savedFiles().front());
  for (int i = 0; i < rounds(6, 400) && !HasFailure(); ++i) {
    const auto at = random() % all;
    const int bits = 1 + below(255);
    SCOPED_TRACE("byte " + std::to_string(at) + " ^ " + std::to_string(bits));
    expectExactAfter([&](const std::string& file) { flip(file, at, bits); });
  }
}

// An identifier that is none, or that still leads to the file without being its own.
TEST_F(SavedQueue, WithAnIdentifierChangedIsMadeGood) {
  fsf_fid fid;
  ASSERT_EQ(identify(AT_FDCWD, (volume + "/file 7").c_str(), fid), 0);
  const std::string_view wanted(reinterpret_cast<const char*>(fid.data), sizeof fid.data);
  std::ifstream saved(savedFiles().front(), std::ios::binary);
  const auto first = std::string(std::istreambuf_iterator<char>(saved), {}).find(wanted);
  ASSERT_NE(first, std::string::npos);
  const std::size_t step = isLong() ? 1 : 4;  // the type, bytes of the handle, what is behind it
  for (std::size_t at = 0; at < wanted.size() && !HasFailure(); at += step) {
    SCOPED_TRACE("byte " + std::to_string(at) + " of the identifier");
    expectExactAfter([&](const std::string& file) { flip(file, first + at, 1); });
  }
}

TEST_F(SavedQueue, ThatIsMissingOrForeignIsMadeGood) {
  const std::string folder = queueFile("");
  expectExactAfter([](const std::string& file) { fs::remove(file); });
  expectExactAfter([&](const std::string&) { fs::remove_all(folder); });
  expectExactAfter([](const std::string& file) { std::ofstream(file) << "no records at all"; });
  expectExactAfter([&](const std::string&) { std::ofstream(folder + "/swap.7") << "foreign"; });
  expectExactAfter([&](const std::string& file) {
    fs::copy_file(file, folder + "/swap.3", fs::copy_options::overwrite_existing);
  });
  expectExactAfter([&](const std::string&) { std::ofstream(folder + "/notes") << "foreign"; });
  expectExactAfter([&](const std::string&) { fs::remove(queueFile(".numbers")); });
  expectExactAfter([&](const std::string&) { std::ofstream(queueFile(".numbers")) << "7 x -1\n"; });
  for (const char* indicator : {"DriverThreadShutdownIndicator", "DbThreadShutdownIndicator"})
    expectExactAfter([&](const std::string&) { fs::remove(folder + "/" + indicator); });
}

}  // namespace
}  // namespace kddc::faults
