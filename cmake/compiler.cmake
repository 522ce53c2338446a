# Flags that every target of the project shares, as the interface target `tarno_flags`.

add_library(tarno_flags INTERFACE)
target_compile_options(tarno_flags INTERFACE -Wall -Wextra -Wpedantic)
if(TARNO_WARNINGS_AS_ERRORS)
  target_compile_options(tarno_flags INTERFACE -Werror)
endif()

# A product and a sum are two roundings, everywhere: the reference kernels promise chains of single
# float operations, and the fast kernels are compared with them.
target_compile_options(tarno_flags INTERFACE -ffp-contract=off)

# 32-bit x86 would keep floats in 80-bit registers.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(i[3-6]86|x86)$" OR CMAKE_CXX_FLAGS MATCHES "-m32")
  target_compile_options(tarno_flags INTERFACE -msse2 -mfpmath=sse)
endif()

set(TARNO_LINK_OPTIONS
    "-Wl,--no-undefined" "-Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map")

option(TARNO_SANITIZE "AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
if(TARNO_SANITIZE)
  set(sanitizers -fsanitize=address,undefined,float-cast-overflow -fno-sanitize-recover=all
                 -fno-omit-frame-pointer)
  add_compile_options(${sanitizers})
  add_link_options(${sanitizers})
  # The runtime of the sanitizers is resolved in the executable, not in the shared library.
  set(TARNO_LINK_OPTIONS "")
endif()

# The fuzzers' sanitizers and coverage go into every unit of the build.
if(TARNO_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "TARNO_BUILD_FUZZERS needs clang; use the preset `fuzz`.")
  endif()
  set(fuzz_flags -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
                 -fno-omit-frame-pointer)
  add_compile_options(${fuzz_flags})
  add_link_options(${fuzz_flags})
  set(TARNO_LINK_OPTIONS "")
endif()
