#include "tools/corvane-sql/Output.h"

#include <cerrno>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#else
#include <poll.h>
#include <unistd.h>
#endif

namespace corvane::shell {

namespace {

// Large enough that a fetch writes in few calls, small enough that a dropped buffer
// is no great loss and memory stays flat.
constexpr size_t kBufferSize = 64 * 1024;

}  // namespace

COutput::COutput(int fd) : fd_(fd) {
#ifdef _WIN32
  // The bytes as written: text mode would turn CSV's CRLF into CR CR LF.
  _setmode(fd, _O_BINARY);
  terminal_ = _isatty(fd) != 0;
#else
  terminal_ = isatty(fd) != 0;
#endif
  buffer_.reserve(kBufferSize);
}

bool COutput::Write(std::string_view text) {
  if (error_) return false;
  buffer_.append(text);
  return buffer_.size() < kBufferSize || Flush();
}

bool COutput::Flush() {
  if (error_) return false;
  const bool ok = WriteOut(buffer_.data(), buffer_.size());
  buffer_.clear();
  return ok;
}

void COutput::DropPending() {
  if (error_ || atLineStart_) {
    buffer_.clear();
    return;
  }
  const size_t end = buffer_.find('\n');
  if (end == std::string::npos) {
    buffer_ += '\n';
  } else {
    buffer_.resize(end + 1);
  }
  Flush();
}

bool COutput::WriteOut(const char* data, size_t size) {
  while (size > 0) {
#ifdef _WIN32
    const int n = _write(fd_, data, static_cast<unsigned>(size > (1u << 30) ? (1u << 30) : size));
#else
    const ssize_t n = write(fd_, data, size);
#endif
    if (n < 0) {
      if (errno == EINTR) continue;
#ifndef _WIN32
      if (errno == EAGAIN || errno == EWOULDBLOCK) {  // a descriptor left non-blocking by the parent
        pollfd p{fd_, POLLOUT, 0};
        poll(&p, 1, -1);
        continue;
      }
#endif
      error_ = errno;
      return false;
    }
    if (n == 0) {
      error_ = EIO;
      return false;
    }
    atLineStart_ = data[n - 1] == '\n';
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace corvane::shell
