# The CMake package of the installed tree, in <libdir>/cmake/nxaclient/:
#   nxaclient-config.cmake          what find_package(nxaclient CONFIG) reads
#   nxaclient-config-version.cmake  which requested versions this one satisfies
#   nxaclient-targets*.cmake        the imported targets nxaclient::nxaclient and
#                                   nxaclient::vlplatform
#   nxahost-targets*.cmake          the imported target nxaclient::nxahost (the
#                                   host kit, the component nxahost)
# Under <libdir>, not share/: the targets name this architecture's libraries.
include(CMakePackageConfigHelpers)

set(NXA_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/nxaclient)

install(EXPORT nxaclient-targets NAMESPACE nxaclient:: DESTINATION ${NXA_PACKAGE_DIR} COMPONENT dev)
# The host kit, read for find_package(nxaclient CONFIG COMPONENTS nxahost).
install(EXPORT nxahost-targets NAMESPACE nxaclient:: DESTINATION ${NXA_PACKAGE_DIR} COMPONENT dev)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/nxaclient-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/nxaclient-config.cmake
  INSTALL_DESTINATION ${NXA_PACKAGE_DIR}
  NO_SET_AND_CHECK_MACRO)

# The public header lays out the library's classes (members, sizes, inline
# functions), so any release may change what a consumer compiled in. While the
# version is 0.y, a new y may do so: only the same 0.y is accepted (a request
# for 0.1 takes 0.1.5, not 0.2.0). From 1.0 on, only a new major version
# carries such changes.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(NXA_PACKAGE_COMPATIBILITY SameMinorVersion)
else()
  set(NXA_PACKAGE_COMPATIBILITY SameMajorVersion)
endif()
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/nxaclient-config-version.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY ${NXA_PACKAGE_COMPATIBILITY})

install(FILES ${CMAKE_CURRENT_BINARY_DIR}/nxaclient-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/nxaclient-config-version.cmake
        DESTINATION ${NXA_PACKAGE_DIR} COMPONENT dev)
