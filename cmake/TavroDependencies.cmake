# What is built depends on what is there. The module needs nothing but the C++ standard library; each
# part that needs more has an option, which is AUTO (the part is left out, with a message, if
# something is missing), ON (then that is an error) or OFF.

# tavro_settle(OPTION PART MISSING...): sets an option that is AUTO to ON or OFF.
function(tavro_settle option part)
  if(NOT ${option})
    return()
  endif()
  list(JOIN ARGN ", " missing)
  if(NOT missing)
    set(${option} ON PARENT_SCOPE)
  elseif(${option} STREQUAL "AUTO")
    message(STATUS "Left out: ${part}, ${missing} is missing; tools/install-dependencies installs it")
    set(${option} OFF PARENT_SCOPE)
  else()
    message(FATAL_ERROR "${part}: there is no ${missing}. tools/install-dependencies installs it; "
      "-D${option}=OFF builds without.")
  endif()
endfunction()

# Libraries that are headers alone, for the building machine and for others.
function(tavro_look_for_header list name header)
  find_path(TAVRO_FOUND_${name} ${header} PATH_SUFFIXES stb PATHS /usr/include /usr/local/include
    NO_CMAKE_FIND_ROOT_PATH)
  mark_as_advanced(TAVRO_FOUND_${name})
  if(NOT TAVRO_FOUND_${name})
    set(${list} ${${list}} ${name} PARENT_SCOPE)
  endif()
endfunction()

set(lacking "")
if(TAVRO_BUILD_HOST)
  tavro_look_for_header(lacking CLI11 CLI/CLI.hpp)
  tavro_look_for_header(lacking stb stb_image.h)
  if(NOT WIN32)
    find_package(PNG QUIET)
    if(NOT PNG_FOUND)
      list(APPEND lacking libpng)
    endif()
    find_package(PkgConfig QUIET)
    if(PkgConfig_FOUND)
      pkg_check_modules(TAVRO_FOUND_FFMPEG QUIET
        libavdevice libavformat libavcodec libswscale libavutil)
    endif()
    if(NOT TAVRO_FOUND_FFMPEG_FOUND)
      list(APPEND lacking "FFmpeg's libraries")
    endif()
  endif()
endif()
tavro_settle(TAVRO_BUILD_HOST "the applications" ${lacking})

set(lacking "")
if(TAVRO_BUILD_TESTS AND NOT CMAKE_CROSSCOMPILING)
  find_package(GTest QUIET)
  if(NOT GTest_FOUND)
    list(APPEND lacking GoogleTest)
  endif()
endif()
tavro_settle(TAVRO_BUILD_TESTS "the tests" ${lacking})

# tavro_find_header_library(PACKAGE TARGET FOLDER): the target of a library that is headers alone.
# A cross-build shares them with the building machine, but only them: their folder is linked into the
# build tree, since all else beside it is for the building machine's own compiler.
function(tavro_find_header_library package target folder)
  if(NOT CMAKE_CROSSCOMPILING)
    find_package(${package} REQUIRED)
    set_target_properties(${target} PROPERTIES IMPORTED_GLOBAL TRUE)
    return()
  endif()
  find_path(TAVRO_${package}_HEADERS ${folder} PATHS /usr/include /usr/local/include
    NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  set(headers "${CMAKE_BINARY_DIR}/headers/${package}")
  file(MAKE_DIRECTORY "${headers}")
  file(CREATE_LINK "${TAVRO_${package}_HEADERS}/${folder}" "${headers}/${folder}" SYMBOLIC)
  if(NOT TARGET ${target})
    add_library(${target} INTERFACE IMPORTED GLOBAL)
    target_include_directories(${target} INTERFACE "${headers}")
  endif()
endfunction()
