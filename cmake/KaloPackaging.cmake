# Debian packages, one per install component (cmake/KaloInstall.cmake):
#   libkalo<major>  the runtime library            (component runtime)
#   libkalo-dev     headers, CMake and pkg-config files, the .so link, examples (dev)
#   kalo-tools      kalo-sim, kalo-monitor and the other programs  (tools)
#   python3-kalo    the Python package, when python/ installs one  (python)
# Built by `cmake --build build --target package` or tools/make-debs.sh.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kalo)
set(CPACK_PACKAGE_VENDOR "kalo developers")
set(CPACK_PACKAGE_CONTACT "kalo developers <kalo-dev@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
# Staged with DESTDIR so that the install scripts see the final prefix, /usr,
# and kalo.pc names it.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(KALO_DEB_VERSION "${PROJECT_VERSION}-1")
set(KALO_RUNTIME_PACKAGE libkalo${PROJECT_VERSION_MAJOR})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# Dependencies on system libraries come from dpkg-shlibdeps (libtirpc3, libc6,
# libstdc++6, ...); the ones between our own packages are written out.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${KALO_RUNTIME_PACKAGE})
# A shlibs file, so that packages built against libkalo depend on libkalo4
# (>= this version), and the ldconfig trigger.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "kalo client library for force-feedback arms (runtime)
libkalo drives a force-feedback arm whose real-time controller exchanges
UDP frames with it at about 1 kHz: connection, command types, set-points,
state readout, a local 6D coupling servo and its math library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkalo-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${KALO_RUNTIME_PACKAGE} (= ${KALO_DEB_VERSION}), libtirpc-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION "kalo client library for force-feedback arms (development files)
Headers, the CMake package (find_package(kalo), target kalo::kalo), the
pkg-config file kalo.pc, and the examples' sources.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kalo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${KALO_RUNTIME_PACKAGE} (= ${KALO_DEB_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "python3-matplotlib")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "kalo controller simulator and tools
kalo-sim behaves like the arm's controller on the wire, with fault
injection; kalo-monitor shows a device's live state and link health;
kalo-doctor checks a machine and a link for a 1 kHz loop; kalo-plot
draws a session recording (with python3-matplotlib).")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kalo)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
  "${KALO_RUNTIME_PACKAGE} (= ${KALO_DEB_VERSION}), python3, python3-numpy")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "kalo client library for force-feedback arms (Python)
The kalo Python package: the C library's calls through ctypes, poses and
forces as numpy arrays.")

# Package only the components that exist in this build; anything installed
# outside them would be left out of every package, so say so.
get_cmake_property(KALO_INSTALL_COMPONENTS COMPONENTS)
set(CPACK_COMPONENTS_ALL)
foreach(component IN LISTS KALO_INSTALL_COMPONENTS)
  if(component MATCHES "^(runtime|dev|tools|python)$")
    list(APPEND CPACK_COMPONENTS_ALL ${component})
  else()
    message(WARNING "Install component '${component}' is in no Debian package "
      "(cmake/KaloPackaging.cmake packages runtime, dev, tools and python)")
  endif()
endforeach()

include(CPack)
