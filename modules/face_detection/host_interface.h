#pragma once

// The boundary between the module and its host: everything that crosses it, and nothing else.
//
// The host loads the module; while it is being loaded, the module registers a callback with the
// host's core library (the qosl_* functions below). Through that callback the host gets instances
// of FDWrapper (fd_wrapper.h), to which it passes one HostFrame after another; each call fills a
// FaceRectSequence that the host owns.
//
// No C++ library object, no exception and no heap block changes owner across this boundary, so the
// two sides may be built with different C++ runtimes and different heaps.

#include <cstdint>

#include "modules/face_detection/loader.h"

namespace TavroRTC::FDModule {

/// Opposite corners of one face, in pixels of the frame it was found in. Width is right - left:
/// no column is added. The corners are not clipped: a face at the border may lie partly outside.
struct FaceRect {
  int32_t left = 0;
  int32_t top = 0;
  int32_t right = 0;
  int32_t bottom = 0;

  friend bool operator==(const FaceRect&, const FaceRect&) = default;
};

/// The host's growable sequence of rectangles. The host owns the elements, from the first to the
/// last: when the module needs more room it calls `grow`, which the host implements with its own
/// allocator, so that the host also frees what it allocated. The module sets `size` to 0, appends
/// within `capacity`, and never frees, moves or shrinks the elements.
struct FaceRectSequence {
  FaceRect* elements = nullptr;  ///< `size` valid elements, room for `capacity`; null if none
  int32_t size = 0;
  int32_t capacity = 0;
  /// Makes room for at least `capacity` elements and keeps the first `size` of them, updating
  /// `elements` and `capacity`. False, with nothing changed, if there is no memory.
  bool (*grow)(FaceRectSequence* sequence, int32_t capacity) = nullptr;
};

/// One video frame of the host: three separate 8-bit planes Y, U, V in 4:2:0 sampling. The chroma
/// planes hold (width + 1) / 2 by (height + 1) / 2 samples, and both have the stride of plane 1,
/// which is at least the width of such a row. The module reads the frame during the call only, and
/// writes none of it.
class HostFrame {
 public:
  virtual const uint8_t* planeData(int32_t plane) const = 0;  ///< first sample of plane 0, 1 or 2
  virtual int32_t planeStride(int32_t plane) const = 0;       ///< bytes from one row to the next
  virtual int32_t width() const = 0;                          ///< luma width in pixels
  virtual int32_t height() const = 0;                         ///< luma height in pixels

 protected:
  ~HostFrame() = default;  // the module never destroys a frame
};

/// What the host asks of moduleCallback.
struct ModuleCommand {
  int32_t code = 0;        ///< one of the two codes below
  void* object = nullptr;  ///< create: address of the pointer to write; destroy: the instance
};

inline constexpr int32_t createInstanceCommand = 1001;
inline constexpr int32_t destroyInstanceCommand = 1002;

/// The name under which the module registers itself.
inline constexpr const char* moduleName = "tavro_fd_extension";
/// The name of the module beside it, the same detector with weights for faces that aren't
/// stretched.
inline constexpr const char* squareModuleName = "tavro_fd_extension_square";

/// The module's callback. The first argument is the host's and is ignored; the second points to a
/// ModuleCommand. 0, or -1 for a code that the module doesn't know.
using ModuleCallback = int32_t (*)(void* context, void* command);

}  // namespace TavroRTC::FDModule

extern "C" {
/// Lets the host watch the module that contains `codeAddress`. Negative on failure.
TAVRO_HOST_API int32_t qosl_so_register(const char* name, const void* codeAddress);
/// Registers the module's callback. Negative on failure, for example a name already taken.
TAVRO_HOST_API int32_t qosl_module_register(const char* name,
                                            TavroRTC::FDModule::ModuleCallback callback);
/// Takes the callback back, at unload. Negative if the name isn't registered.
TAVRO_HOST_API int32_t qosl_module_unregister(const char* name);
/// Formatted text to the host's own log.
TAVRO_HOST_API int32_t qosl_printf(const char* format, ...);
}
