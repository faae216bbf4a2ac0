# What is installed, and the packages of it:
#   cmake --install BUILD --prefix FOLDER               everything, relocatable
#   cmake --build --preset windows --target package     a ZIP for Windows
#   cmake --build --preset debian --target package      Debian packages, one a component
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
set(TAVRO_INCLUDE_FOLDER "${CMAKE_INSTALL_INCLUDEDIR}/tavro-fd")
set(TAVRO_CMAKE_FOLDER "${CMAKE_INSTALL_LIBDIR}/cmake/TavroFd")

# The library: what a program needs to run the detector. Other folders install their own parts.
install(TARGETS tavro_core EXPORT TavroFdTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT library NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library
  INCLUDES DESTINATION ${TAVRO_INCLUDE_FOLDER})
if(WIN32)  # there a module lies beside the programs that load it
  set(TAVRO_MODULE_FOLDER "${CMAKE_INSTALL_BINDIR}")
  set(TAVRO_MODULE_PATH "${TAVRO_MODULE_FOLDER}/tavro_fd_extension.dll")
else()
  set(TAVRO_MODULE_FOLDER "${CMAKE_INSTALL_LIBDIR}")
  set(TAVRO_MODULE_PATH "${TAVRO_MODULE_FOLDER}/libtavro_fd_extension.so")
endif()
foreach(module IN ITEMS tavro_fd_extension tavro_fd_extension_square)
  if(TARGET ${module})
    if(NOT WIN32)
      set_target_properties(${module} PROPERTIES INSTALL_RPATH "$ORIGIN")
    endif()
    install(TARGETS ${module} LIBRARY DESTINATION ${TAVRO_MODULE_FOLDER} COMPONENT library)
  endif()
endforeach()
if(TARGET tavro-fd)
  install(TARGETS tavro-fd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT applications)
endif()

# The boundary, for hosts of any make, and libtavro-core's own interface for those of the same one.
set(headers
  host/core/face_rects.h
  host/core/host_api.h
  host/core/i420_frame.h
  modules/face_detection/fd_wrapper.h
  modules/face_detection/host_interface.h
  modules/face_detection/loader.h)
if(NOT WIN32)
  list(APPEND headers host/core/face_numbers.h host/core/frame_search.h host/core/module_host.h
    host/core/window_plan.h)
endif()
foreach(header ${headers})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${TAVRO_INCLUDE_FOLDER}/${folder} COMPONENT development)
endforeach()

# find_package(TavroFd): the target TavroFd::core, and the module's file in TavroFd_MODULE.
set_target_properties(tavro_core PROPERTIES EXPORT_NAME core)
install(EXPORT TavroFdTargets NAMESPACE TavroFd::
  DESTINATION ${TAVRO_CMAKE_FOLDER} COMPONENT development)
set(made "${CMAKE_CURRENT_BINARY_DIR}/package-files")
configure_package_config_file(cmake/TavroFdConfig.cmake.in "${made}/TavroFdConfig.cmake"
  INSTALL_DESTINATION ${TAVRO_CMAKE_FOLDER} PATH_VARS TAVRO_MODULE_PATH)
write_basic_package_version_file("${made}/TavroFdConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${made}/TavroFdConfig.cmake" "${made}/TavroFdConfigVersion.cmake"
  DESTINATION ${TAVRO_CMAKE_FOLDER} COMPONENT development)

if(WIN32)
  install(FILES "${CMAKE_BINARY_DIR}/host/core/libtavro-core.def"
    DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES LICENSE DESTINATION .)
  install(FILES docs/windows.md DESTINATION . RENAME README.md)
  install(FILES examples/cpp/CMakeLists.txt examples/cpp/example_host.cpp DESTINATION example)
else()
  # pkg-config's file names its prefix from where it lies, so that a tree can be moved.
  file(RELATIVE_PATH TAVRO_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  configure_file(cmake/tavro-fd.pc.in "${made}/tavro-fd.pc" @ONLY)
  install(FILES "${made}/tavro-fd.pc"
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endif()

set(CPACK_PACKAGE_NAME tavro-fd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/package")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME windows-x64)
  include(CPack)
  return()
endif()

# --- The Debian packages ---

# Each is one component of the installation, so that a program which embeds the detector brings
# neither FFmpeg nor Python along.
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library applications development)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "face detector for live video")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The tavro-fd maintainers <maintainers@tavro-fd.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Where dpkg-shlibdeps finds the library that isn't installed yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_BINARY_DIR}/host/core")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libtavro-fd1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "Face detector for live video, and the library that loads it")
# For packages that are built with the library.
file(CONFIGURE OUTPUT "${CMAKE_BINARY_DIR}/package-files/shlibs"
  CONTENT "libtavro-core 1 libtavro-fd1\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA "${CMAKE_BINARY_DIR}/package-files/shlibs")

set(exactly "(= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_APPLICATIONS_PACKAGE_NAME tavro-fd)
set(CPACK_DEBIAN_APPLICATIONS_PACKAGE_DEPENDS "libtavro-fd1 ${exactly}")
set(CPACK_COMPONENT_APPLICATIONS_DESCRIPTION "Finds the faces in videos and pictures")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtavro-fd-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libtavro-fd1 ${exactly}")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers for programs that embed the face detector")

if(TARGET tavrofd_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tavrofd)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  math(EXPR next "${Python_VERSION_MINOR} + 1")
  string(CONCAT CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "libtavro-fd1 ${exactly}, python3-numpy, "
    "python3 (>= 3.${Python_VERSION_MINOR}), python3 (<< 3.${next})")
  set(CPACK_COMPONENT_PYTHON_DESCRIPTION "The face detector for Python")
  # Python's compiled files come with the package and go with it.
  set(steps postinst prerm)
  set(commands py3compile py3clean)
  foreach(step command IN ZIP_LISTS steps commands)
    file(CONFIGURE OUTPUT "${CMAKE_BINARY_DIR}/package-files/${step}" CONTENT
      "#!/bin/sh\nset -e\nif command -v ${command} >/dev/null; then ${command} -p python3-tavrofd; fi\n")
    list(APPEND CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
      "${CMAKE_BINARY_DIR}/package-files/${step}")
  endforeach()
endif()
if(TARGET gsttavrofacedetect)
  list(APPEND CPACK_COMPONENTS_ALL gstreamer)
  set(CPACK_DEBIAN_GSTREAMER_PACKAGE_NAME gstreamer1.0-tavro-fd)
  set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_GSTREAMER_PACKAGE_DEPENDS "libtavro-fd1 ${exactly}")
  set(CPACK_COMPONENT_GSTREAMER_DESCRIPTION "The GStreamer element tavrofacedetect")
endif()

# The licence, and what the weights may be used for, which it doesn't tell.
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  install(FILES cmake/debian-copyright RENAME copyright COMPONENT ${component}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
endforeach()
install(FILES training/MODEL_CARD.md COMPONENT library
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME})
include(CPack)
