# Strict warnings for our own targets only; third-party code keeps its own flags.
function(vx_strict target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
