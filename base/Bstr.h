// Owns one BSTR and frees it on every way out of a scope.
#pragma once
#include <utility>

#include "platform/Platform.h"

namespace corvane {

class Bstr {
 public:
  Bstr() = default;
  // Takes over a string the caller owns.
  explicit Bstr(BSTR owned) noexcept : b_(owned) {}
  Bstr(Bstr&& other) noexcept : b_(std::exchange(other.b_, nullptr)) {}
  Bstr& operator=(Bstr&& other) noexcept {
    std::swap(b_, other.b_);
    return *this;
  }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  ~Bstr() { Reset(); }

  BSTR Get() const noexcept { return b_; }
  explicit operator bool() const noexcept { return b_ != nullptr; }
  UINT Length() const noexcept { return SysStringLen(b_); }
  // The slot for an out parameter: whatever was held is freed first.
  BSTR* Put() noexcept {
    Reset();
    return &b_;
  }
  BSTR Detach() noexcept { return std::exchange(b_, nullptr); }
  void Reset() noexcept { SysFreeString(std::exchange(b_, nullptr)); }

 private:
  BSTR b_ = nullptr;
};

}  // namespace corvane
