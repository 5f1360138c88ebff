// A stack for walking a statement's trees without recursion. It lives on the caller's
// stack until a tree is unusually deep: the trees of a statement rarely need more than a
// few entries, and parsing or preparing one should not allocate to walk them.
#pragma once
#include <cstddef>
#include <vector>

template <typename T>
class CWalkStack {
 public:
  bool Empty() const { return size_ == 0; }
  // May throw std::bad_alloc once the inline entries are used up.
  void Push(T value) {
    if (size_ < kInline)
      inline_[size_] = value;
    else
      spill_.push_back(value);
    ++size_;
  }
  T Pop() {
    --size_;
    if (size_ < kInline) return inline_[size_];
    T value = spill_.back();
    spill_.pop_back();
    return value;
  }

 private:
  static constexpr size_t kInline = 32;
  T inline_[kInline];
  size_t size_ = 0;
  std::vector<T> spill_;
};
