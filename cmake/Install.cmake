# What `cmake --install build --prefix P` (and the release archive made by
# `cpack`) lays out for hosts; P is complete by itself and can be moved:
#   P/lib/Tarvik.Velmora.Framework.OpenVINOBindings.so  (stripped)
#   P/lib/velmora-runtime/  the interpreter and runtime packages it runs on,
#                           found beside the library's own file
#   P/lib/Velmora.dll, Velmora.xml  the C# binding and its documentation
#                           (bindings/dotnet), which finds the library beside it
#   P/include/openvino_bindings.h
#   P/lib/cmake/TarvikVelmoraOpenVINOBindings/  find_package() config and version
#   P/lib/pkgconfig/TarvikVelmoraOpenVINOBindings.pc
#   P/bin/velmora-host      the command-line host
# Every path in the config and .pc files is relative to where they are
# installed, so they describe P wherever it is.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VELMORA_PACKAGE TarvikVelmoraOpenVINOBindings)
set(VELMORA_LIBRARY_NAME $<TARGET_FILE_NAME:Tarvik.Velmora.Framework.OpenVINOBindings>)
set(VELMORA_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/${VELMORA_PACKAGE})
set(VELMORA_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS Tarvik.Velmora.Framework.OpenVINOBindings
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
set(velmora_installed_lib "\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
install(CODE "execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-unneeded
    \"${velmora_installed_lib}/$<TARGET_FILE_NAME:Tarvik.Velmora.Framework.OpenVINOBindings>\"
    COMMAND_ERROR_IS_FATAL ANY)" COMPONENT runtime)
if(VELMORA_BUNDLE_RUNTIME)
  install(CODE "message(STATUS \"Copying the runtime folder\")
    execute_process(COMMAND \"${VELMORA_PYTHON_EXECUTABLE}\" \"${VELMORA_RUNTIME_SCRIPT}\" copy
      \"${velmora_installed_lib}/${VELMORA_RUNTIME_FOLDER}\" COMMAND_ERROR_IS_FATAL ANY)" COMPONENT runtime)
endif()
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

# `cpack` in the build tree: a .tar.gz of the same layout, named with the
# version and the platform.
set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_NAME ${VELMORA_PACKAGE})
set(CPACK_PACKAGE_FILE_NAME ${VELMORA_PACKAGE}-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
include(CPack)
