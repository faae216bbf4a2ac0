#pragma once

// Scratch memory for the time of one call.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace TavroRTC::FDModule {

/// A run of samples on a 64-byte boundary, freed with the object. One more pixel may be written
/// at either end, up to 64 bytes, for kernels that look past a row.
class WorkRow {
 public:
  /// Not initialised. False if there is no memory.
  bool allocate(int64_t count) noexcept {
    const size_t bytes = static_cast<size_t>(count) + 2 * alignment;
    block_.reset(
        static_cast<uint8_t*>(::operator new (bytes, std::align_val_t{alignment}, std::nothrow)));
    return block_ != nullptr;
  }

  uint8_t* samples() { return block_.get() + alignment; }

 private:
  static constexpr size_t alignment = 64;

  struct Deleter {
    void operator()(uint8_t* block) const noexcept {
      ::operator delete (block, std::align_val_t{alignment});
    }
  };

  std::unique_ptr<uint8_t, Deleter> block_;
};

}  // namespace TavroRTC::FDModule
