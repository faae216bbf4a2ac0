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
