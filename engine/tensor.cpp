#include "engine/tensor.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "engine/aligned_memory.h"
#include "engine/number_conversion.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule {
namespace {

// Far more than any memory holds; a count made from negative extents lies above it.
constexpr uint64_t maxFloatCount = std::numeric_limits<int64_t>::max() / sizeof(float);

AlignedBuffer<float> allocateFloats(uint64_t count) {
  return count > maxFloatCount ? nullptr : allocateAligned<float>(count);
}

// A product past 32 bits wraps, as unsigned numbers may, and a negative one widens to a count that
// no allocation grants.
uint64_t elementsOfShape(const Tensor& tensor) {
  const uint32_t product = static_cast<uint32_t>(tensor.n) * static_cast<uint32_t>(tensor.h) *
                           static_cast<uint32_t>(tensor.w) * static_cast<uint32_t>(tensor.c);
  return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(product)));
}

template <typename T>
void releaseStorage(T*& storage, bool borrowed, std::shared_ptr<void>& keeper) {
  const bool isKept = storage != nullptr && keeper.get() == storage;
  keeper.reset();
  if (!isKept && !borrowed)
    alignedFree(storage);
  storage = nullptr;
}

/// Leaves a tensor's own storage to a keeper that others can hold, too. False without memory.
template <typename T>
bool keep(T* storage, bool borrowed, std::shared_ptr<void>& keeper) {
  if (storage == nullptr || borrowed || keeper.get() == storage)
    return true;
  try {
    keeper = {std::make_shared<AlignedBuffer<T>>(storage), storage};
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

Tensor::~Tensor() {
  releaseStorage(floatData, floatBorrowed, floatNote_.keeper);
  releaseStorage(halfData, halfBorrowed, halfNote_.keeper);
  releaseStorage(byteData, byteBorrowed, byteNote_.keeper);
}

uint64_t Tensor::count() const {
  return elementCount != 0 ? elementCount : elementsOfShape(*this);
}

float* Tensor::data(int32_t layoutCode) {
  if (layout == layoutCode)
    return allocateFloatData() ? floatData : nullptr;
  return repack(layoutCode) ? floatData : nullptr;
}

bool Tensor::fits(const void* storage, const Note& note) const {
  return storage == nullptr || storage != note.storage || count() <= note.elements;
}

bool Tensor::storageFits() const {
  return fits(floatData, floatNote_);
}

bool Tensor::halfStorageFits() const {
  return fits(halfData, halfNote_);
}

bool Tensor::byteStorageFits() const {
  return fits(byteData, byteNote_);
}

bool Tensor::holdsItsShape() const {
  const auto elements = packedElementCount({n, h, w, c}, layout::channelsLast);
  return elements && *elements >= 1 && *elements <= INT32_MAX && count() >= *elements &&
         storageFits();
}

void Tensor::takeShapeOf(const Tensor& other) {
  n = other.n;
  h = other.h;
  w = other.w;
  c = other.c;
  layout = other.layout;
}

bool Tensor::allocateFloatData() {
  if (floatData == nullptr) {
    floatData = allocateFloats(count()).release();
    floatBorrowed = false;
    floatNote_ = {floatData, count(), nullptr};
  }
  return floatData != nullptr && storageFits();
}

float* Tensor::floatStorage() {
  return allocateFloatData() ? floatData : nullptr;
}

bool Tensor::repack(int32_t layoutCode) {
  if (layout != layout::channelsLast && layout != layout::channelsFirst)
    return false;
  const TensorExtents extents{n, h, w, c};
  const auto available = packedElementCount(extents, layout);
  const auto wanted = packedElementCount(extents, layoutCode);
  // Without storage there are no values yet, only the new order to note.
  if (!available || !wanted || (floatData != nullptr && (count() < *available || !storageFits())))
    return false;
  AlignedBuffer<float> packed = allocateFloats(*wanted);
  if (packed == nullptr)
    return false;
  if (floatData != nullptr)
    packWeights(floatData, packed.get(), extents, layout, layoutCode);
  releaseStorage(floatData, floatBorrowed, floatNote_.keeper);
  floatData = packed.release();
  floatBorrowed = false;
  floatNote_ = {floatData, *wanted, nullptr};
  elementCount = *wanted;
  layout = layoutCode;
  return true;
}

void Tensor::halfToFloat() {
  // A packed tensor counts more values than the half storage has.
  if (halfData != nullptr && halfStorageFits() && count() == elementsOfShape(*this) &&
      allocateFloatData())
    FDModule::halfToFloat(halfData, floatData, static_cast<int64_t>(count()));
}

void Tensor::floatToHalf() {
  if (floatData == nullptr || !storageFits())
    return;
  if (halfData == nullptr && count() <= maxFloatCount) {
    halfData = allocateAligned<uint16_t>(count()).release();
    halfBorrowed = false;
    halfNote_ = {halfData, count(), nullptr};
  }
  if (halfData != nullptr && halfStorageFits())
    FDModule::floatToHalf(floatData, halfData, static_cast<int64_t>(count()));
}

bool Tensor::copyTo(Tensor& dst) {
  if (&dst == this)
    return true;
  const uint64_t copied = count();
  // The repeated lanes of a packed weight are copied too, though the shape doesn't count them.
  const uint64_t needed =
      std::max(copied, dst.elementCount != 0 ? dst.elementCount : elementsOfShape(*this));
  if (needed > maxFloatCount || !allocateFloatData() ||
      (dst.floatData != nullptr && (dst.count() < needed || !dst.storageFits())))
    return false;
  if (dst.floatData == nullptr) {
    AlignedBuffer<float> storage = allocateFloats(needed);
    if (storage == nullptr)
      return false;
    dst.floatData = storage.release();
    dst.floatBorrowed = false;
    dst.floatNote_ = {dst.floatData, needed, nullptr};
  }
  dst.takeShapeOf(*this);
  std::memcpy(dst.floatData, floatData, copied * sizeof(float));
  return true;
}

template <typename T>
void Tensor::borrow(T*& storage, bool& borrowed, Note& note, T* address) {
  // A tensor that is lent its own buffer stays the owner: there is nobody else to free it.
  if (address == nullptr || (address == storage && !borrowed))
    return;
  if (address != storage)
    releaseStorage(storage, borrowed, note.keeper);
  storage = address;
  borrowed = true;
  // A lender sets the tensor's shape first, or nothing is known of the size. count() won't do: it
  // may still be that of a repacked storage which the tensor had before.
  note.elements = elementsOfShape(*this);
  note.storage = note.elements != 0 ? address : nullptr;
}

void Tensor::borrow(float* address) {
  borrow(floatData, floatBorrowed, floatNote_, address);
}
void Tensor::borrow(uint16_t* address) {
  borrow(halfData, halfBorrowed, halfNote_, address);
}
void Tensor::borrow(uint8_t* address) {
  borrow(byteData, byteBorrowed, byteNote_, address);
}

void Tensor::settle(float* address, const std::shared_ptr<void>& block) {
  if (floatData != nullptr)
    return;
  floatData = address;
  floatBorrowed = false;
  floatNote_ = {address, count(), {block, address}};
}

bool Tensor::share(Tensor& lender) {
  if (!keep(lender.floatData, lender.floatBorrowed, lender.floatNote_.keeper) ||
      !keep(lender.halfData, lender.halfBorrowed, lender.halfNote_.keeper))
    return false;
  share(floatData, floatBorrowed, floatNote_, lender.floatData, lender.floatNote_);
  share(halfData, halfBorrowed, halfNote_, lender.halfData, lender.halfNote_);
  return true;
}

// The size of a shared storage is what its lender knows, whatever the two shapes say.
template <typename T>
void Tensor::share(T*& storage, bool& borrowed, Note& note, T* address, const Note& lenderNote) {
  borrow(storage, borrowed, note, address);
  if (address != nullptr && storage == address && borrowed)
    note = lenderNote;
}

}  // namespace TavroRTC::FDModule
