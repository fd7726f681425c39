# What a host developer gets from `cmake --install`: the SDK (headers and libvxsdk), the module in
# the host's folder, and two descriptions of them, a CMake package (find_package(vxprsr):
# vxprsr::sdk, vxprsr::module) and a pkg-config file (vxprsr.pc, variable "module").
include(CMakePackageConfigHelpers)

set_target_properties(vxsdk PROPERTIES EXPORT_NAME sdk)
install(TARGETS vxsdk EXPORT vxprsrTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${VX_INSTALL_INCLUDEDIR})
# The SDK headers include vx/vxchar.h and nothing else of the platform layer.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/sdk/include/vx DESTINATION ${VX_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/platform/include/vx/vxchar.h
  DESTINATION ${VX_INSTALL_INCLUDEDIR}/vx)
install(EXPORT vxprsrTargets NAMESPACE vxprsr:: DESTINATION ${VX_INSTALL_CMAKEDIR})

# The module is loaded, never linked: its import library (Windows) is not installed.
if(NOT WIN32)
  vx_rpath_to_libdir(rpath ${VX_INSTALL_APPDIR})
  set_target_properties(vxprsr PROPERTIES INSTALL_RPATH "${rpath}")
endif()
install(TARGETS vxprsr
  RUNTIME DESTINATION ${VX_INSTALL_APPDIR}
  LIBRARY DESTINATION ${VX_INSTALL_APPDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} EXCLUDE_FROM_ALL)
set(VX_INSTALL_MODULE ${VX_INSTALL_APPDIR}/$<TARGET_FILE_NAME:vxprsr>)

if(NOT WIN32)
  # bin/vxhost -> the real one in the host's folder.
  file(RELATIVE_PATH vxhost_link ${CMAKE_INSTALL_FULL_BINDIR}
       ${CMAKE_INSTALL_PREFIX}/${VX_INSTALL_APPDIR}/vxhost)
  install(CODE "
    set(bindir \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    file(MAKE_DIRECTORY \"\${bindir}\")
    message(STATUS \"Installing: \${bindir}/vxhost -> ${vxhost_link}\")
    file(CREATE_LINK \"${vxhost_link}\" \"\${bindir}/vxhost\" SYMBOLIC)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${bindir}/vxhost\")")
endif()

# CMake package. The module's file name is only known at generation time, so the config file is
# configured first and then finished by file(GENERATE).
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vxprsrConfig.cmake.in
  ${PROJECT_BINARY_DIR}/vxprsrConfig.cmake.gen
  INSTALL_DESTINATION ${VX_INSTALL_CMAKEDIR}
  PATH_VARS VX_INSTALL_APPDIR)
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/vxprsrConfig.cmake
  INPUT ${PROJECT_BINARY_DIR}/vxprsrConfig.cmake.gen)
# 0.x: a minor version may change the SDK's interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vxprsrConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vxprsrConfig.cmake
              ${PROJECT_BINARY_DIR}/vxprsrConfigVersion.cmake
  DESTINATION ${VX_INSTALL_CMAKEDIR})

# pkg-config file, relative to its own folder so the installed tree can be moved.
set(pcdir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH VX_PC_PREFIX ${CMAKE_INSTALL_PREFIX}/${pcdir} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" VX_PC_PREFIX "${VX_PC_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/vxprsr.pc.in ${PROJECT_BINARY_DIR}/vxprsr.pc.gen @ONLY)
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/vxprsr.pc INPUT ${PROJECT_BINARY_DIR}/vxprsr.pc.gen)
install(FILES ${PROJECT_BINARY_DIR}/vxprsr.pc DESTINATION ${pcdir})
