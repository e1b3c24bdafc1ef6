# Installing the module as a library others build on: libvrta.so, the host
# headers, the message files, the example exit module and the vrta tool in
# the usual places, with a CMake package (find_package(vrta) gives
# vrta::vrta) and a pkg-config file. Every installed path is relative to the
# prefix, so an installed tree may be moved as a whole.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VRTA_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vrta)
set(VRTA_INSTALL_MSGDIR ${CMAKE_INSTALL_DATADIR}/vrta/msg)
set(VRTA_INSTALL_EXITDIR ${CMAKE_INSTALL_LIBDIR}/vrta/exits)

target_include_directories(vrta INTERFACE
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS vrta EXPORT vrtaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/vrta DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY msg/ DESTINATION ${VRTA_INSTALL_MSGDIR})
install(TARGETS vrta_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The example exit only: the other modules of tools/exits are broken on
# purpose, for the exit manager's tests.
install(TARGETS xdemo LIBRARY DESTINATION ${VRTA_INSTALL_EXITDIR})

install(EXPORT vrtaTargets NAMESPACE vrta:: DESTINATION ${VRTA_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/vrtaConfig.cmake.in
  ${CMAKE_BINARY_DIR}/vrtaConfig.cmake INSTALL_DESTINATION ${VRTA_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/vrtaConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/vrtaConfig.cmake ${CMAKE_BINARY_DIR}/vrtaConfigVersion.cmake
  DESTINATION ${VRTA_INSTALL_CMAKEDIR})

# pkg-config finds the prefix from where the file stands.
file(RELATIVE_PATH VRTA_PC_UP /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
string(REGEX REPLACE "/$" "" VRTA_PC_UP "${VRTA_PC_UP}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/vrta.pc.in ${CMAKE_BINARY_DIR}/vrta.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/vrta.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Where the installed vrta finds the module, the messages and the exits,
# relative to its own directory.
file(RELATIVE_PATH VRTA_REL_LIBDIR /p/${CMAKE_INSTALL_BINDIR} /p/${CMAKE_INSTALL_LIBDIR})
file(RELATIVE_PATH VRTA_REL_MSGDIR /p/${CMAKE_INSTALL_BINDIR} /p/${VRTA_INSTALL_MSGDIR})
file(RELATIVE_PATH VRTA_REL_EXITDIR /p/${CMAKE_INSTALL_BINDIR} /p/${VRTA_INSTALL_EXITDIR})
target_compile_definitions(vrta_cli PRIVATE VRTA_REL_LIBDIR="${VRTA_REL_LIBDIR}"
  VRTA_REL_MSGDIR="${VRTA_REL_MSGDIR}" VRTA_REL_EXITDIR="${VRTA_REL_EXITDIR}")
