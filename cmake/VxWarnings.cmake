# Strict warnings for our own targets only; third-party code keeps its own flags. -Werror only
# when asked (VX_WERROR, on in the presets and CI): a packager's newer compiler must not fail the
# build over a new warning.
#
# GCC 12 at -O3 (CMake's Release) reports an overlapping memcpy of ~2^63 bytes inside libstdc++
# for `"literal" + std::string`, a known false positive of that version; -Wrestrict is off there
# and only there (the presets build at -O2 and keep it). ASan checks real overlaps at run time.
set(VX_WARNINGS -Wall -Wextra)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
   AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  list(APPEND VX_WARNINGS $<$<CONFIG:Release>:-Wno-restrict>)
endif()

function(vx_strict target)
  target_compile_options(${target} PRIVATE ${VX_WARNINGS})
  if(VX_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
