# Cross-builds for x86-64 Windows with Debian's mingw-w64. The variant with POSIX threads is the one
# that has std::mutex and std::thread; linked statically it asks for no DLL of its own.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(triple x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${triple}-g++-posix)
set(CMAKE_ASM_COMPILER ${triple}-gcc-posix)
set(CMAKE_RC_COMPILER ${triple}-windres)

# Nothing of the building machine's own libraries and headers may come in.
set(CMAKE_FIND_ROOT_PATH /usr/${triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test programs run under Wine, in a prefix that belongs to the build tree.
set(CMAKE_CROSSCOMPILING_EMULATOR
  "${CMAKE_CURRENT_LIST_DIR}/../tools/run-in-wine" "${CMAKE_BINARY_DIR}/wine-prefix")
