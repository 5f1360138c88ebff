#include "platform/System.h"

#include <cerrno>
#include <cstdlib>

namespace corvane::platform {

FILE* OpenFile(const std::string& utf8Path, const char* mode) { return std::fopen(utf8Path.c_str(), mode); }

bool ReadEnvironment(const char* name, std::string* utf8Value) {
  const char* v = std::getenv(name);
  *utf8Value = v ? v : "";
  return v != nullptr;
}

int LastSystemError() { return errno; }

}  // namespace corvane::platform
