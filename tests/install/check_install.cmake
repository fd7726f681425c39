# Installs the build tree into a fresh prefix, then builds the host program of this folder
# against it twice, through find_package(vxprsr) and through pkg-config, and runs both and the
# installed vxhost with a private registry.
# cmake -DBUILD=<build tree> -DWORK=<scratch folder> -DLIBDIR=<lib> -DGENERATOR=<g>
#       -DCXX=<compiler> [-DFLAGS=<sanitizer flags>] -P check_install.cmake
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${ARGN}\nfailed (${rc}):\n${out}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK}/prefix)
file(REMOVE_RECURSE ${WORK})
set(ENV{VXHOST_REGISTRY} ${WORK}/registry.json)
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
separate_arguments(flags UNIX_COMMAND "${FLAGS}")

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})

run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR} -B ${WORK}/cmake -G ${GENERATOR}
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK}/cmake)
run(${WORK}/cmake/vx_install_host)
message(STATUS "find_package: ${out}")

run(pkg-config --variable=module vxprsr)
string(STRIP "${out}" module)
run(pkg-config --cflags --libs vxprsr)
separate_arguments(pc UNIX_COMMAND "${out}")
run(${CXX} -std=c++20 ${flags} "-DVX_MODULE=\"${module}\"" ${CMAKE_CURRENT_LIST_DIR}/host.cpp
    ${pc} -ldl -Wl,-rpath,${prefix}/${LIBDIR} -o ${WORK}/pc_host)
run(${WORK}/pc_host)
message(STATUS "pkg-config: ${out}")

# bin/vxhost finds the module beside its real self and registers it.
file(REMOVE $ENV{VXHOST_REGISTRY})
run(${prefix}/bin/vxhost formats)
if(NOT out MATCHES "DPX")
  message(FATAL_ERROR "installed vxhost lists no DPX parser:\n${out}")
endif()
