# What `cmake --install` puts in a prefix, by component:
#   runtime  libkalo.so.<major> and its versioned file
#   dev      the .so link, the public headers (with the generated kalo_version.h),
#            the CMake package (kalo::kalo), kalo.pc, the examples' sources
#   tools    kalo-sim, kalo-monitor and the other programs (their own CMakeLists)
#   python   the Python package (python/CMakeLists.txt)
# Each component becomes one Debian package (cmake/KaloPackaging.cmake).
include(CMakePackageConfigHelpers)

set(KALO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kalo)

install(TARGETS kalo EXPORT kaloTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(DIRECTORY include/kalo ${PROJECT_BINARY_DIR}/include/kalo
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev FILES_MATCHING PATTERN "*.h")

install(EXPORT kaloTargets NAMESPACE kalo:: DESTINATION ${KALO_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/kaloConfig.cmake.in ${PROJECT_BINARY_DIR}/kaloConfig.cmake
  INSTALL_DESTINATION ${KALO_CMAKE_DIR})
# A program written for 4.x keeps building and running with any later 4.y.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kaloConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kaloConfig.cmake ${PROJECT_BINARY_DIR}/kaloConfigVersion.cmake
  DESTINATION ${KALO_CMAKE_DIR} COMPONENT dev)

# kalo.pc names its prefix, which is only known at install time
# (`cmake --install build --prefix DIR`, or /usr when CPack stages a package):
# the template is configured now and the prefix filled in by the install script.
set(KALO_PC_PREFIX "@KALO_PC_PREFIX@")
# Only a static link would need these (we ship none); glibc keeps the threads in
# libc, where FindThreads reports no flag, and -pthread is right everywhere.
set(KALO_PC_THREADS "${CMAKE_THREAD_LIBS_INIT}")
if(NOT KALO_PC_THREADS)
  set(KALO_PC_THREADS -pthread)
endif()
configure_file(cmake/kalo.pc.in ${PROJECT_BINARY_DIR}/kalo.pc.in @ONLY)
install(CODE "
  set(KALO_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_BINARY_DIR}/kalo.pc.in\" \"${PROJECT_BINARY_DIR}/kalo.pc\" @ONLY)
  " COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/kalo.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# The programs: kalo-sim and every program built under tools/. They find the
# library through a path relative to their own, so that a prefix can be moved.
set(KALO_PROGRAMS)
if(TARGET kalo-sim)
  list(APPEND KALO_PROGRAMS kalo-sim)
endif()
if(EXISTS ${PROJECT_SOURCE_DIR}/tools/CMakeLists.txt)
  get_property(kalo_tool_targets DIRECTORY tools PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS kalo_tool_targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      list(APPEND KALO_PROGRAMS ${target})
    endif()
  endforeach()
endif()
foreach(program IN LISTS KALO_PROGRAMS)
  set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endforeach()
if(KALO_PROGRAMS)
  install(TARGETS ${KALO_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

# The examples' sources, to read and to copy from.
file(GLOB KALO_EXAMPLE_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/examples/*.c
     ${PROJECT_SOURCE_DIR}/examples/*.xml ${PROJECT_SOURCE_DIR}/examples/*.py)
install(FILES ${KALO_EXAMPLE_SOURCES} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT dev)
