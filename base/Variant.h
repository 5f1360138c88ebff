// Owns one VARIANT and clears it (freeing a BSTR, releasing an interface...) on every
// way out of a scope.
#pragma once
#include "platform/Platform.h"

namespace corvane {

class Variant {
 public:
  Variant() noexcept { VariantInit(&v_); }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
  ~Variant() { VariantClear(&v_); }

  VARIANT* Get() noexcept { return &v_; }
  const VARIANT* Get() const noexcept { return &v_; }
  VARIANT* operator->() noexcept { return &v_; }
  const VARIANT* operator->() const noexcept { return &v_; }
  // The slot for an out parameter: the value held is cleared first.
  VARIANT* Put() noexcept {
    VariantClear(&v_);
    return &v_;
  }
  // Moves the value into `out` (which must hold nothing to free) and leaves VT_EMPTY.
  void Detach(VARIANT* out) noexcept {
    *out = v_;
    VariantInit(&v_);
  }

 private:
  VARIANT v_;
};

}  // namespace corvane
