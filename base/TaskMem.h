// Owns one block from CoTaskMemAlloc and frees it on every way out of a scope, until
// the block is handed to the consumer with Detach.
#pragma once
#include <cstddef>
#include <utility>

#include "platform/Platform.h"

namespace corvane {

template <typename T>
class TaskMem {
 public:
  TaskMem() = default;
  explicit TaskMem(T* owned) noexcept : p_(owned) {}
  TaskMem(TaskMem&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  TaskMem& operator=(TaskMem&& other) noexcept {
    std::swap(p_, other.p_);
    return *this;
  }
  TaskMem(const TaskMem&) = delete;
  TaskMem& operator=(const TaskMem&) = delete;
  ~TaskMem() { Reset(); }

  // `count` elements, uninitialised; empty when there is no memory.
  static TaskMem Allocate(size_t count) {
    if (count > static_cast<size_t>(-1) / sizeof(T)) return TaskMem();
    return TaskMem(static_cast<T*>(CoTaskMemAlloc(count * sizeof(T))));
  }

  T* Get() const noexcept { return p_; }
  T& operator[](size_t i) const noexcept { return p_[i]; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  T** Put() noexcept {
    Reset();
    return &p_;
  }
  T* Detach() noexcept { return std::exchange(p_, nullptr); }
  void Reset() noexcept { CoTaskMemFree(std::exchange(p_, nullptr)); }

 private:
  T* p_ = nullptr;
};

}  // namespace corvane
