# What is installed, and the archive of it: `cmake --build --preset windows --target package`.
include(GNUInstallDirs)

install(TARGETS tavro_core
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(WIN32)  # there a module lies beside the programs that load it
  install(TARGETS tavro_fd_extension LIBRARY DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES "${CMAKE_BINARY_DIR}/host/core/libtavro-core.def"
    DESTINATION ${CMAKE_INSTALL_LIBDIR})
else()
  install(TARGETS tavro_fd_extension LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
if(TAVRO_BUILD_HOST)
  install(TARGETS tavro-fd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# The boundary, for hosts of any make.
foreach(header
    engine/platform/loader.h
    host/core/face_rects.h
    host/core/host_api.h
    host/core/i420_frame.h
    modules/face_detection/fd_wrapper.h
    modules/face_detection/host_interface.h)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder})
endforeach()

if(WIN32)
  install(FILES LICENSE DESTINATION .)
  install(FILES docs/windows.md DESTINATION . RENAME README.md)
  install(FILES host/example/CMakeLists.txt host/example/example_host.cpp DESTINATION example)
endif()

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME tavro-fd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
if(WIN32)
  set(CPACK_SYSTEM_NAME windows-x64)
else()
  set(CPACK_SYSTEM_NAME linux-x64)
endif()
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/package")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)
