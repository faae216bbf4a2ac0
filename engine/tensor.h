#pragma once

// Tensor: the one data container of the engine. Weights, biases and activations are tensors, and a
// layer sees nothing else. The values can be there in up to three number formats at once; each
// storage is the tensor's own, or borrowed from somebody who keeps it alive. Asking for the float
// data in a layout repacks it on the spot, once and for good: that is how a weight gets from the
// constant tables into the order its kernel wants, on the first frame and without a packing step.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace TavroRTC::FDModule {

class Layer;

class Tensor {
 public:
  Tensor() = default;
  virtual ~Tensor();
  Tensor(const Tensor&) = delete;
  Tensor& operator=(const Tensor&) = delete;

  /// The number of elements in the float storage; of a packed weight, the padded number.
  uint64_t count() const;

  /// The float data in `layoutCode` (weight_packing.h). Allocates the storage if there is none,
  /// uninitialised. Null if there is no memory, if the data stands in an order from which nothing
  /// can be repacked (any but channelsLast and channelsFirst), or if there are fewer values than
  /// the extents ask for; nothing changes then.
  float* data(int32_t layoutCode);

  /// The float storage whatever its layout, allocated if there is none. Null without memory, or if
  /// the shape has outgrown the storage.
  float* floatStorage();

  /// False if the shape has outgrown the float, half or byte storage. Storage that was put in by
  /// hand, past the functions of this class, counts as large enough.
  bool storageFits() const;
  bool halfStorageFits() const;
  bool byteStorageFits() const;

  /// True if all extents are at least 1, their product fits 32 bits and the float storage holds
  /// that many elements: then a loop over the extents stays inside of it.
  bool holdsItsShape() const;

  /// Takes over the extents and the layout code, not the values.
  void takeShapeOf(const Tensor& other);

  /// Fills the float storage from the half storage, on every call. Nothing happens if there is no
  /// half storage, if the shape has outgrown it, or if there is no memory.
  void halfToFloat();
  /// The same in the other direction.
  void floatToHalf();

  /// Copies the extents, the layout and the float values to `dst`; its elementCount stays. False if
  /// there is no memory or `dst` has a float storage that is too small; `dst` stays as it was then.
  bool copyTo(Tensor& dst);

  /// Puts somebody else's memory into a storage, freeing what the tensor owned there. It holds as
  /// many elements as the extents ask for; the lender keeps it alive and unchanged in size. Null
  /// leaves the storage alone, and so does the address of the storage itself.
  void borrow(float* address);
  void borrow(uint16_t* address);
  void borrow(uint8_t* address);

  /// Makes a part of a block of memory the float storage, where there is none yet: alignedSize of
  /// its bytes from `address` on. The block is freed when no storage in it is used any more.
  void settle(float* address, const std::shared_ptr<void>& block);

  /// Borrows the float and half storages of another tensor. Their memory is freed when neither of
  /// the two uses it any more. False, with nothing changed, if there is no memory.
  bool share(Tensor& lender);

  int32_t n = 0;  ///< first extent; of a weight, the output channels
  int32_t h = 0;
  int32_t w = 0;
  int32_t c = 0;
  uint64_t elementCount = 0;  ///< where it isn't n * h * w * c; 0 where it is
  int32_t layout = 0;         ///< the layout code of floatData
  std::string name;
  float mean[3] = {0, 0, 0};   ///< subtracted from a byte when it becomes a float
  float scale[3] = {1, 1, 1};  ///< and multiplied with the difference
  float* floatData = nullptr;
  uint16_t* halfData = nullptr;
  uint8_t* byteData = nullptr;
  bool floatBorrowed = false;
  bool halfBorrowed = false;
  bool byteBorrowed = false;
  Layer* producer = nullptr;      ///< the layer that writes this tensor
  std::vector<Layer*> consumers;  ///< the layers that read it, in order of construction

 private:
  // What is known of a storage besides its address.
  struct Note {
    const void* storage = nullptr;  // which one, as somebody may put in another by hand
    uint64_t elements = 0;
    std::shared_ptr<void> keeper;  // if the storage is shared: frees it after its last user
  };

  bool allocateFloatData();
  bool repack(int32_t layoutCode);
  bool fits(const void* storage, const Note& note) const;
  template <typename T>
  void borrow(T*& storage, bool& borrowed, Note& note, T* address);
  template <typename T>
  void share(T*& storage, bool& borrowed, Note& note, T* address, const Note& lenderNote);

  Note floatNote_;
  Note halfNote_;
  Note byteNote_;
};

}  // namespace TavroRTC::FDModule
