# Warnings for the project's own targets.
function(zvr_enable_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
endfunction()
