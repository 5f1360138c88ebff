#include "platform/Console.h"

#include <fcntl.h>
#include <io.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include "platform/Platform.h"

namespace corvane::platform {
namespace {

std::atomic<void (*)(int)> g_interruptHandler{nullptr};

// The C run-time resets a handler on every delivery: put it back before calling it.
extern "C" void Rearm(int signal) {
  std::signal(SIGINT, Rearm);
  if (auto handler = g_interruptHandler.load()) handler(signal);
}

}  // namespace

bool IsTerminal(int fd) { return _isatty(fd) != 0; }

void SetBinaryMode(int fd) { _setmode(fd, _O_BINARY); }

long WriteSome(int fd, const char* data, size_t size) {
  for (;;) {
    const int n = _write(fd, data, static_cast<unsigned>(size > (1u << 30) ? (1u << 30) : size));
    if (n >= 0 || errno != EINTR) return n;
  }
}

bool OutputTerminalSize(int* columns, int* rows) {
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (!GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info)) return false;
  *columns = info.srWindow.Right - info.srWindow.Left + 1;
  *rows = info.srWindow.Bottom - info.srWindow.Top + 1;
  return true;
}

void InstallInterruptHandler(void (*handler)(int)) {
  g_interruptHandler.store(handler);
  std::signal(SIGINT, Rearm);
}

}  // namespace corvane::platform
