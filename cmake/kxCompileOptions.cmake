# Flags for our own targets, linked PRIVATE so that consumers never inherit them.

add_library(kx_warnings INTERFACE)
target_compile_options(kx_warnings INTERFACE -Wall -Wextra)
if(KX_WERROR)
  target_compile_options(kx_warnings INTERFACE -Werror)
endif()

# Results are reproduced bit for bit: no fused multiply-add, no fast-math.
add_library(kx_numerics INTERFACE)
target_compile_options(kx_numerics INTERFACE -ffp-contract=off -fno-fast-math)

if(KX_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  # The instrumentation makes GCC report uninitialised reads inside the standard library
  # (std::function in <regex>, for one) that do not exist; the plain build keeps the warning.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(kx_warnings INTERFACE -Wno-maybe-uninitialized)
  endif()
endif()

if(KX_TSAN)
  if(KX_SANITIZE)
    message(FATAL_ERROR "KX_TSAN and KX_SANITIZE exclude each other: ThreadSanitizer runs on its own")
  endif()
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

# libFuzzer coverage for everything, so the fuzz targets see inside the library; the
# targets themselves add -fsanitize=fuzzer. float-cast-overflow is not part of the
# undefined set, and NaN coordinates reach float-to-integer conversions.
if(KX_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KX_BUILD_FUZZ needs clang: configure with CC=clang CXX=clang++")
  endif()
  if(KX_SANITIZE OR KX_TSAN)
    message(FATAL_ERROR "KX_BUILD_FUZZ brings its own sanitizers: leave KX_SANITIZE and KX_TSAN off")
  endif()
  set(KX_FUZZ_SANITIZERS address,undefined,float-cast-overflow)
  add_compile_options(-fsanitize=fuzzer-no-link,${KX_FUZZ_SANITIZERS} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KX_FUZZ_SANITIZERS})
endif()
