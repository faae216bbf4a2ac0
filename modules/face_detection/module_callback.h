#pragma once

// What the host can ask of the module as a whole: make an instance and destroy one.

#include <cstdint>

namespace TavroRTC::FDModule {

/// The callback that the module registers (ModuleCallback in host_interface.h): `command` points to
/// a ModuleCommand, the first argument is ignored. Returns 0, even if there is no memory for an
/// instance: the host then finds a null pointer in its place. Returns -1, with nothing done, if the
/// code is unknown, if the command or the place for the instance is missing, and after
/// refuseCommands().
int32_t moduleCallback(void* context, void* command) noexcept;

/// Makes moduleCallback answer -1 from now on. A module that the host wouldn't register is loaded
/// all the same, and must not hand out instances that nobody counts.
void refuseCommands() noexcept;

}  // namespace TavroRTC::FDModule
