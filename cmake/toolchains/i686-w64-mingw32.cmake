# 32-bit Windows: the product DLL.
set(CMAKE_SYSTEM_PROCESSOR x86)
set(VX_MINGW_TRIPLE i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
