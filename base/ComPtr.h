// Owns one reference to a COM interface and releases it on every way out of a scope,
// so that early returns need no hand-written Release.
#pragma once
#include <utility>

#include "platform/Platform.h"

namespace corvane {

template <typename T>
class ComPtr {
 public:
  ComPtr() = default;
  // Takes over a reference the caller already owns (no AddRef).
  explicit ComPtr(T* owned) noexcept : p_(owned) {}
  ComPtr(const ComPtr& other) noexcept : p_(other.p_) {
    if (p_) p_->AddRef();
  }
  ComPtr(ComPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  ComPtr& operator=(ComPtr other) noexcept {
    std::swap(p_, other.p_);
    return *this;
  }
  ~ComPtr() { Reset(); }

  // A new reference to `p` (AddRef), for a pointer borrowed from elsewhere.
  static ComPtr Share(T* p) noexcept {
    if (p) p->AddRef();
    return ComPtr(p);
  }

  T* Get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  // The slot for an out parameter: whatever was held is released first.
  T** Put() noexcept {
    Reset();
    return &p_;
  }
  void** PutVoid() noexcept { return reinterpret_cast<void**>(Put()); }
  // Hands the reference to the caller (an out parameter of our own interface).
  T* Detach() noexcept { return std::exchange(p_, nullptr); }
  void Reset() noexcept {
    if (T* p = std::exchange(p_, nullptr)) p->Release();
  }

 private:
  T* p_ = nullptr;
};

// Interface `iid` of `object` (null when the object is null or lacks it).
template <typename T>
ComPtr<T> QueryAs(IUnknown* object, REFIID iid) {
  ComPtr<T> out;
  if (object && FAILED(object->QueryInterface(iid, out.PutVoid()))) out.Reset();
  return out;
}

}  // namespace corvane
