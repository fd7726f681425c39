# Third-party libraries. Those Debian does not ship for a target are optional there:
# the rows that need them still register and answer Open with E_NOTIMPL.
find_package(Threads REQUIRED)
if(NOT CMAKE_CROSSCOMPILING)
  find_package(nlohmann_json 3 QUIET)
  find_package(CLI11 QUIET CONFIG)
endif()
if(NOT WIN32)
  find_package(GTest QUIET)
  find_package(benchmark QUIET)
endif()

if(CMAKE_CROSSCOMPILING)
  # The header-only libraries of the build machine serve the cross targets too. Their own package
  # files would put /usr/include on the include path, ahead of the target's C library, so only
  # their folders are exposed, through links in the build tree.
  set(VX_XINCLUDE ${CMAKE_BINARY_DIR}/xinclude)
  file(MAKE_DIRECTORY ${VX_XINCLUDE})
  foreach(entry "nlohmann_json;nlohmann;nlohmann/json.hpp" "CLI11;CLI;CLI/CLI.hpp")
    list(GET entry 0 pkg)
    list(GET entry 1 dir)
    list(GET entry 2 probe)
    if(EXISTS /usr/include/${probe} AND NOT TARGET ${pkg}::${pkg})
      file(CREATE_LINK /usr/include/${dir} ${VX_XINCLUDE}/${dir} SYMBOLIC)
      add_library(${pkg}::${pkg} INTERFACE IMPORTED GLOBAL)
      set_target_properties(${pkg}::${pkg} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${VX_XINCLUDE})
      set(${pkg}_FOUND TRUE)
    endif()
  endforeach()
endif()

# Libraries Debian ships for Linux only (libtiff, libpng, libjpeg, tinyxml2, FFmpeg) are not
# looked for in cross builds. Code that needs one tests for its target and, without it, builds
# the parser so that Open answers E_NOTIMPL; the row still registers.

# Windows targets build GoogleTest from the Debian source package.
if(WIN32 AND VX_BUILD_TESTS AND NOT TARGET GTest::gtest AND EXISTS /usr/src/googletest/CMakeLists.txt)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
endif()

# Format libraries (Linux). Each parser folder links what it finds and builds without it
# otherwise, its row answering Open with E_NOTIMPL.
if(NOT CMAKE_CROSSCOMPILING)
  find_package(PkgConfig QUIET)
  find_package(PNG QUIET)
  find_package(TIFF QUIET)
  find_package(JPEG QUIET)
  find_package(GIF QUIET)
  find_package(tinyxml2 QUIET CONFIG)
  if(PKG_CONFIG_FOUND)
    pkg_check_modules(FFMPEG QUIET IMPORTED_TARGET libavformat libavcodec libavutil libswscale
                      libswresample)
    pkg_check_modules(OPENJP2 QUIET IMPORTED_TARGET libopenjp2)
    # Peers for benchmarks and interop tests only; never linked into the component.
    pkg_check_modules(SNDFILE QUIET IMPORTED_TARGET sndfile)
  endif()
  find_package(OpenImageIO QUIET CONFIG)
endif()
