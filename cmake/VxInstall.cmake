# Where things go on `cmake --install`. The module, vxhost and the decoder programs share one
# folder: vxhost loads the module from beside itself, and the module starts the decoders from the
# host executable's folder ("QuickTimeDecoder/" below it for the QuickTime one). On Windows that
# folder is bin/; elsewhere it is a private folder under lib/, and bin/vxhost links to it (the
# executable's path is taken from /proc/self/exe, which names the link's target).
include(GNUInstallDirs)

if(WIN32)
  set(VX_INSTALL_APPDIR_DEFAULT ${CMAKE_INSTALL_BINDIR})
else()
  set(VX_INSTALL_APPDIR_DEFAULT ${CMAKE_INSTALL_LIBDIR}/vxprsr)
endif()
set(VX_INSTALL_APPDIR ${VX_INSTALL_APPDIR_DEFAULT} CACHE STRING
    "Folder (under the prefix) of vxhost, the parser module and the decoder programs")
# The public headers go into a folder of their own, so "vx/" does not land in /usr/include.
set(VX_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/vxprsr)
set(VX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vxprsr)

# $ORIGIN-relative run path from an installed folder to libvxsdk, so the tree can be moved.
function(vx_rpath_to_libdir out dir)
  if(IS_ABSOLUTE "${dir}")
    set(from "${dir}")
  else()
    set(from "${CMAKE_INSTALL_PREFIX}/${dir}")
  endif()
  file(RELATIVE_PATH rel "${from}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  string(REGEX REPLACE "/$" "" rel "${rel}")
  if(rel STREQUAL "")
    set(${out} "$ORIGIN" PARENT_SCOPE)
  else()
    set(${out} "$ORIGIN/${rel}" PARENT_SCOPE)
  endif()
endfunction()

# A program of the host's folder: vxhost, and each decoder program (which calls this from its own
# CMakeLists.txt). FOLDER names a subfolder of the host's folder, in the build tree as well, so
# the channels find the programs there in both.
#   vx_host_program(vxhost)
#   vx_host_program(QTDecoder FOLDER QuickTimeDecoder)
function(vx_host_program target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "FOLDER" "")
  set(dest ${VX_INSTALL_APPDIR})
  if(arg_FOLDER)
    set(dest ${dest}/${arg_FOLDER})
    set_target_properties(${target} PROPERTIES
      RUNTIME_OUTPUT_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${arg_FOLDER})
  endif()
  if(NOT WIN32)
    vx_rpath_to_libdir(rpath ${dest})
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${rpath}")
  endif()
  install(TARGETS ${target} RUNTIME DESTINATION ${dest})
endfunction()
