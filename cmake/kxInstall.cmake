# Installs the three libraries, every public header flat under include/kxCommonAddOns,
# the CMake package kxCommonAddOns and a pkg-config file.

include(CMakePackageConfigHelpers)

set(KX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kxCommonAddOns)
set(KX_INSTALL_HEADERDIR ${CMAKE_INSTALL_INCLUDEDIR}/kxCommonAddOns)

install(TARGETS kxCommonAddOns kxSystem kxSceneGraph kxWm4
  EXPORT kxCommonAddOnsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${KX_INSTALL_HEADERDIR})

file(GLOB KX_PUBLIC_HEADERS CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/include/*.h
  ${PROJECT_SOURCE_DIR}/platform/wm4/*.h
  ${PROJECT_SOURCE_DIR}/platform/system/*.h
  ${PROJECT_SOURCE_DIR}/platform/scenegraph/*.h)
install(FILES ${KX_PUBLIC_HEADERS} DESTINATION ${KX_INSTALL_HEADERDIR})

install(EXPORT kxCommonAddOnsTargets
  NAMESPACE kxCommonAddOns::
  DESTINATION ${KX_INSTALL_CMAKEDIR})

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/kxCommonAddOnsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kxCommonAddOnsConfig.cmake
  INSTALL_DESTINATION ${KX_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/kxCommonAddOnsConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/kxCommonAddOnsConfig.cmake
  ${PROJECT_BINARY_DIR}/kxCommonAddOnsConfigVersion.cmake
  ${PROJECT_SOURCE_DIR}/cmake/FindWildMagic5.cmake
  DESTINATION ${KX_INSTALL_CMAKEDIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/kxCommonAddOns.pc.in
  ${PROJECT_BINARY_DIR}/kxCommonAddOns.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kxCommonAddOns.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
