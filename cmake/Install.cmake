# What `cmake --install build --prefix P` lays out for hosts:
#   P/lib/Tarvik.Velmora.Framework.OpenVINOBindings.so  (RPATH: the build's venv)
#   P/include/openvino_bindings.h
#   P/lib/cmake/TarvikVelmoraOpenVINOBindings/  find_package() config and version
#   P/lib/pkgconfig/TarvikVelmoraOpenVINOBindings.pc
# Every path in the config and .pc files is relative to where they are
# installed, so the prefix given at install time is the one they describe.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VELMORA_PACKAGE TarvikVelmoraOpenVINOBindings)
set(VELMORA_LIBRARY_NAME $<TARGET_FILE_NAME:Tarvik.Velmora.Framework.OpenVINOBindings>)
set(VELMORA_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/${VELMORA_PACKAGE})
set(VELMORA_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS Tarvik.Velmora.Framework.OpenVINOBindings
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/include/openvino_bindings.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/${VELMORA_PACKAGE}Config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/${VELMORA_PACKAGE}Config.cmake.in
  INSTALL_DESTINATION ${VELMORA_CONFIG_DIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
# The library's file name is only known at generation time.
file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${VELMORA_PACKAGE}Config.cmake
  INPUT ${CMAKE_CURRENT_BINARY_DIR}/${VELMORA_PACKAGE}Config.cmake.in)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${VELMORA_PACKAGE}ConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${VELMORA_PACKAGE}Config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/${VELMORA_PACKAGE}ConfigVersion.cmake
  DESTINATION ${VELMORA_CONFIG_DIR} COMPONENT development)

file(RELATIVE_PATH VELMORA_PKGCONFIG_TO_PREFIX
  ${CMAKE_INSTALL_PREFIX}/${VELMORA_PKGCONFIG_DIR} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" VELMORA_PKGCONFIG_TO_PREFIX "${VELMORA_PKGCONFIG_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/${VELMORA_PACKAGE}.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/${VELMORA_PACKAGE}.pc.in @ONLY)
file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${VELMORA_PACKAGE}.pc
  INPUT ${CMAKE_CURRENT_BINARY_DIR}/${VELMORA_PACKAGE}.pc.in)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${VELMORA_PACKAGE}.pc
  DESTINATION ${VELMORA_PKGCONFIG_DIR} COMPONENT development)
