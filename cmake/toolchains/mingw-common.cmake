# Shared part of the MinGW-w64 cross toolchains; the per-target files set VX_MINGW_TRIPLE first.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_VERSION 6.1)

# The -posix thread model carries std::thread and std::mutex; the win32 one does not.
set(CMAKE_C_COMPILER ${VX_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VX_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${VX_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${VX_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Link the compiler's run-time libraries (libgcc, libstdc++, winpthread) in, so the DLLs and
# programs run without the MinGW DLLs beside them. Our own DLLs still link through their import
# libraries, which are named by path.
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
# Windows has no rpath; everything lands in bin/ beside the programs.
set(CMAKE_SKIP_RPATH ON)
