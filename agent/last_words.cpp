// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/last_words.h"

#include <signal.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <new>

#include "agent/commands/commands.h"

namespace kddc {
namespace {

iovec piece(const char* text) {
  return {const_cast<char*>(text), std::strlen(text)};
}

[[noreturn]] void endWith(const char* what) {
  const iovec line[] = {piece("kddc: ended where it was: "), piece(what), piece("\n")};
  [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, line, std::size(line));
  _exit(kExitFailed);
}

[[noreturn]] void onTerminate() {
  try {
    if (const auto unhandled = std::current_exception()) std::rethrow_exception(unhandled);
  } catch (const std::bad_alloc&) {
    endWith("out of memory");
  } catch (const std::exception& e) {
    endWith(e.what());
  } catch (...) {
    endWith("an unknown error");
  }
  std::abort();
}

void onBusError(int) {
  endWith("a file that is used as memory cannot be written or read; is its disk full, or gone?");
}

}  // namespace

void sayLastWords() {
  std::set_terminate(onTerminate);
  struct sigaction action {};
  action.sa_handler = onBusError;
  sigaction(SIGBUS, &action, nullptr);
}

}  // namespace kddc
