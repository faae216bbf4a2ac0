#pragma once

// GuardedBuffer<T>: memory whose neighbours can't be touched. The payload lies flush against an
// unmapped page, behind it or in front of it, and everything else on its pages is filled with a
// pattern that `intact()` checks. A read or write past the guarded end stops the test program; a
// write past the other end shows in `intact()`.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "tests/support/operating_system.h"

namespace tavro::test {

enum class Guard { behind, inFront };

template <typename T>
class GuardedBuffer {
 public:
  static constexpr uint8_t poison = 0xA5;

  /// Room for `count` elements. With Guard::behind the last byte of the payload touches the guard
  /// page; with Guard::inFront the first byte does.
  explicit GuardedBuffer(size_t count, Guard guard = Guard::behind) : count_(count) {
    const size_t page = pageSize();
    const size_t bytes = count * sizeof(T);
    payloadPages_ = (bytes + page - 1) / page * page;
    mapped_ = payloadPages_ + 2 * page;
    void* base = reservePages(mapped_);
    if (base == nullptr)
      throw std::bad_alloc();
    base_ = static_cast<uint8_t*>(base);
    pages_ = base_ + page;
    if (payloadPages_ != 0 && !openPages(pages_, payloadPages_))
      throw std::bad_alloc();
    std::memset(pages_, poison, payloadPages_);
    offset_ = guard == Guard::behind ? payloadPages_ - bytes : 0;
  }
  explicit GuardedBuffer(const std::vector<T>& values, Guard guard = Guard::behind)
      : GuardedBuffer(values.size(), guard) {
    std::copy(values.begin(), values.end(), data());
  }
  ~GuardedBuffer() { releasePages(base_, mapped_); }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  T* data() { return reinterpret_cast<T*>(pages_ + offset_); }
  const T* data() const { return reinterpret_cast<const T*>(pages_ + offset_); }
  size_t size() const { return count_; }
  T& operator[](size_t i) { return data()[i]; }
  const T& operator[](size_t i) const { return data()[i]; }
  T* begin() { return data(); }
  T* end() { return data() + count_; }
  const T* begin() const { return data(); }
  const T* end() const { return data() + count_; }

  /// True while no byte of the mapped pages outside the payload has changed.
  bool intact() const {
    const size_t last = offset_ + count_ * sizeof(T);
    for (size_t i = 0; i < payloadPages_; ++i)
      if ((i < offset_ || i >= last) && pages_[i] != poison)
        return false;
    return true;
  }

 private:
  size_t count_ = 0;
  size_t payloadPages_ = 0;
  size_t mapped_ = 0;
  size_t offset_ = 0;
  uint8_t* base_ = nullptr;
  uint8_t* pages_ = nullptr;
};

}  // namespace tavro::test
