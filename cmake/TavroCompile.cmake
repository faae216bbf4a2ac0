# How every target of the project is compiled, and the two helpers that the folders use:
#   tavro_add_objects(NAME SOURCES ...)      a folder's object library
#   tavro_instruction_set(SET SOURCES ...)   the one instruction set that a kernel file may use

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()

# tavro_options: the flags of all our code. No -march: everything but the kernel files runs on any
# x86-64 processor. Contraction is off so that a sum is rounded exactly as it is written.
add_library(tavro_options INTERFACE)
target_include_directories(tavro_options INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(tavro_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -ffp-contract=off
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<COMPILE_LANGUAGE:CXX>>:-fno-gnu-unique>)
if(WIN32)
  # Windows keeps the stack at multiples of 16 bytes, and GCC doesn't align it further there: a
  # 256-bit vector on the stack must be moved as if it lay anywhere. The runtime comes along, so
  # that nothing but the system's own libraries has to be there.
  target_compile_options(tavro_options INTERFACE -Wa,-muse-unaligned-vector-move)
  target_compile_definitions(tavro_options INTERFACE
    NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00 __USE_MINGW_ANSI_STDIO=1)
  target_link_options(tavro_options INTERFACE -static)
  # Programs find libraries in their own folder.
  set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
  set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
endif()
if(NOT WIN32)
  # Hardening: a stack that was written over is noticed, and all that is constant is read-only once
  # it has been relocated. (The sanitizers check more by themselves.)
  target_compile_options(tavro_options INTERFACE -fstack-protector-strong)
  if(NOT TAVRO_SANITIZE)
    target_compile_options(tavro_options INTERFACE
      $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  endif()
  target_link_options(tavro_options INTERFACE -Wl,-z,relro,-z,now -Wl,-z,noexecstack)
endif()
if(TAVRO_WARNINGS_AS_ERRORS)
  target_compile_options(tavro_options INTERFACE -Werror)
endif()
if(TAVRO_SANITIZE)
  # Not vptr: the host calls objects whose class, with its type information, is in the module alone.
  target_compile_options(tavro_options INTERFACE
    -fsanitize=${TAVRO_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  target_link_options(tavro_options INTERFACE -fsanitize=${TAVRO_SANITIZE})
  target_compile_definitions(tavro_options INTERFACE TAVRO_SANITIZED)
  if(TAVRO_SANITIZE MATCHES "thread")
    target_sources(tavro_options INTERFACE
      $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,MODULE_LIBRARY>:${PROJECT_SOURCE_DIR}/tests/support/library_atexit.cpp>)
  endif()
  # Instrumented, the standard library's own <regex> looks uninitialised to GCC.
  target_compile_options(tavro_options INTERFACE
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<COMPILE_LANGUAGE:CXX>>:-Wno-maybe-uninitialized>)
endif()

function(tavro_add_objects name)
  add_library(${name} OBJECT ${ARGN})
  target_link_libraries(${name} PUBLIC tavro_options)
endfunction()

set(TAVRO_FLAGS_SSSE3 -mssse3)
set(TAVRO_FLAGS_SSE41 -mssse3 -msse4.1)
set(TAVRO_FLAGS_F16C -mf16c)
set(TAVRO_FLAGS_AVX -mavx)
set(TAVRO_FLAGS_AVX2 -mavx2)
set(TAVRO_FLAGS_AVX_FMA -mavx -mfma)
set(TAVRO_FLAGS_AVX512 -mfma -mavx512f -mavx512bw -mavx512dq -mavx512vl -mavx512vbmi2)

function(tavro_instruction_set set)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "${TAVRO_FLAGS_${set}}")
endfunction()
