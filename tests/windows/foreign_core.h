#pragma once

// What the foreign core library has noted of a module.

#include "modules/face_detection/host_interface.h"

struct ForeignNotes {
  int32_t calls[8];  ///< in their order: 1 so_register, 2 module_register, 3 module_unregister
  int32_t callCount;
  const void* codeAddress;
  TavroRTC::FDModule::ModuleCallback callback;
  bool namesAreRight;
};

#if defined(TAVRO_BUILDING_HOST_CORE)
extern "C" __declspec(dllexport) ForeignNotes* foreignNotes();
#else
extern "C" __declspec(dllimport) ForeignNotes* foreignNotes();
#endif
