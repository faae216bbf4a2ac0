#include "modules/face_detection/module_callback.h"

#include <new>

#include "modules/face_detection/fd_wrapper.h"

namespace TavroRTC::FDModule {
namespace {

bool refusing = false;  // written while the module is being loaded, only read after that

}  // namespace

int32_t moduleCallback(void* /*context*/, void* command) noexcept {
  const auto* order = static_cast<const ModuleCommand*>(command);
  if (refusing || order == nullptr)
    return -1;
  switch (order->code) {
    case createInstanceCommand:
      if (order->object == nullptr)
        return -1;
      *static_cast<FDWrapper**>(order->object) = new (std::nothrow) FDWrapper;
      return 0;
    case destroyInstanceCommand:
      FDWrapper::destroy(static_cast<FDWrapper*>(order->object));
      return 0;
    default:
      return -1;
  }
}

void refuseCommands() noexcept {
  refusing = true;
}

}  // namespace TavroRTC::FDModule
