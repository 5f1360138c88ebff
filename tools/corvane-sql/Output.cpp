#include "tools/corvane-sql/Output.h"

#include <cerrno>

#include "platform/Console.h"

namespace corvane::shell {

namespace {

// Large enough that a fetch writes in few calls, small enough that a dropped buffer
// is no great loss and memory stays flat.
constexpr size_t kBufferSize = 64 * 1024;

}  // namespace

COutput::COutput(int fd) : fd_(fd) {
  platform::SetBinaryMode(fd);
  terminal_ = platform::IsTerminal(fd);
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

size_t COutput::DropPending() {
  if (error_ || atLineStart_) {
    buffer_.clear();
    return 0;
  }
  const size_t end = buffer_.find('\n');
  size_t kept = buffer_.size();
  if (end == std::string::npos) {
    buffer_ += '\n';
  } else {
    kept = end + 1;
    buffer_.resize(kept);
  }
  return Flush() ? kept : 0;
}

bool COutput::WriteOut(const char* data, size_t size) {
  while (size > 0) {
    const long n = platform::WriteSome(fd_, data, size);
    if (n < 0) {
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
