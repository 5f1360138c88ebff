#include "platform/Console.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace corvane::platform {

bool IsTerminal(int fd) { return isatty(fd) != 0; }

void SetBinaryMode(int /*fd*/) {}

long WriteSome(int fd, const char* data, size_t size) {
  for (;;) {
    const ssize_t n = write(fd, data, size);
    if (n >= 0) return static_cast<long>(n);
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    pollfd p{fd, POLLOUT, 0};
    poll(&p, 1, -1);
  }
}

bool OutputTerminalSize(int* columns, int* rows) {
  winsize window{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 || window.ws_row == 0) return false;
  *columns = window.ws_col;
  *rows = window.ws_row;
  return true;
}

void InstallInterruptHandler(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
}

}  // namespace corvane::platform
