# The Debian packages. Each is one component of the installation, so that a program which embeds the
# detector brings neither FFmpeg nor Python along.
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
