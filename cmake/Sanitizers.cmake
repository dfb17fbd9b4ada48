# Sanitizer flags for the whole build (our code and the tests), chosen by SONORELL_SANITIZE.
# Sanitizer builds compile at -O1 with line tables only (-g1): what the sanitizers' reports need,
# and much cheaper to build than -O2 -g, which CI pays for twice on two cores.
if(NOT SONORELL_SANITIZE STREQUAL "")
  add_compile_options(-O1 -g1)
endif()
if(SONORELL_SANITIZE STREQUAL "asan")
  # GCC's maybe-uninitialized analysis gives false positives on instrumented library code.
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined -Wno-maybe-uninitialized)
  add_link_options(-fsanitize=address,undefined)
elseif(SONORELL_SANITIZE STREQUAL "tsan")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT SONORELL_SANITIZE STREQUAL "")
  message(FATAL_ERROR "SONORELL_SANITIZE must be asan, tsan or empty")
endif()
