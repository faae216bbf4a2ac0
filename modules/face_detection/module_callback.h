#pragma once

// What the host can ask of the module as a whole: make an instance and destroy one.

#include <cstdint>

namespace TavroRTC::FDModule {

/// The callback that the module registers (ModuleCallback in host_interface.h): `command` points to
/// a ModuleCommand, the first argument is ignored. 0, also if there was no memory for an instance
/// and the host finds a null pointer in its place; -1, with nothing done, for an unknown code,
/// without a command or without a place for the instance, and after refuseCommands().
int32_t moduleCallback(void* context, void* command) noexcept;

/// Makes moduleCallback answer -1 from now on. A module that the host wouldn't register is loaded
/// all the same, and must not hand out instances that nobody counts.
void refuseCommands() noexcept;

}  // namespace TavroRTC::FDModule
