# 64-bit Windows: the test programs, run under wine64.
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(VX_MINGW_TRIPLE x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)

find_program(VX_WINE NAMES wine64 PATHS /usr/lib/wine /usr/lib64/wine NO_CMAKE_FIND_ROOT_PATH)
if(VX_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VX_WINE})
endif()
