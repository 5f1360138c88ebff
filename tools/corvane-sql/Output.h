// The shell's standard output: its own buffer over the file descriptor, so that every
// write is checked (a closed pipe, a full disk or an I/O error stops the shell instead
// of being lost), and Ctrl-C can drop what has not gone out yet.
#pragma once
#include <string>
#include <string_view>

namespace corvane::shell {

class COutput {
 public:
  explicit COutput(int fd);
  ~COutput() { Flush(); }
  COutput(const COutput&) = delete;
  COutput& operator=(const COutput&) = delete;

  // Buffers `text`, writing out whenever the buffer is full; false once any write
  // failed (everything after that is dropped).
  bool Write(std::string_view text);
  bool Flush();
  // Forgets what is buffered beyond the end of the line already begun on the
  // descriptor, which is finished so that the next output starts on a line of its own.
  // Returns how many of the buffered bytes went out (a newline it adds not counted).
  size_t DropPending();
  size_t Buffered() const { return buffer_.size(); }

  bool Failed() const { return error_ != 0; }
  int Error() const { return error_; }  // the errno of the failed write
  bool Terminal() const { return terminal_; }

 private:
  bool WriteOut(const char* data, size_t size);

  int fd_;
  bool terminal_;
  bool atLineStart_ = true;  // the last byte written out ended a line
  int error_ = 0;
  std::string buffer_;
};

}  // namespace corvane::shell
