# Warning flags applied to our own targets only (not to third-party code).
function(sonorell_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
