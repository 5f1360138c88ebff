// The console services a command-line host needs: whether a descriptor is a terminal,
// raw byte output, the terminal's size and Ctrl-C.
#pragma once
#include <cstddef>

namespace corvane::platform {

bool IsTerminal(int fd);
// Bytes go out as written: Windows' text mode would turn CRLF into CR CR LF.
void SetBinaryMode(int fd);
// Writes some of `data` and answers how many bytes went out, or -1 with errno set. An
// interrupted write or a descriptor left non-blocking by the parent is waited out.
long WriteSome(int fd, const char* data, size_t size);
// The visible size of the terminal that stdout shows on; false when there is none.
bool OutputTerminalSize(int* columns, int* rows);
// Calls `handler` on every Ctrl-C (SIGINT), for as long as the process runs.
void InstallInterruptHandler(void (*handler)(int));

}  // namespace corvane::platform
