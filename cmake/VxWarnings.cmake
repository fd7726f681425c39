# Strict warnings for our own targets only; third-party code keeps its own flags. -Werror only
# when asked (VX_WERROR, on in the presets and CI): a packager's newer compiler must not fail the
# build over a new warning.
function(vx_strict target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(VX_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
