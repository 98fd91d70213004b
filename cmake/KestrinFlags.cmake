# One interface target carries warnings, hardening and the sanitizer switch; every target of
# the project links it, so no target can be built with weaker settings than the others.
add_library(kestrin_flags INTERFACE)
target_compile_options(kestrin_flags INTERFACE
  -Wall -Wextra -Werror
  -fstack-protector-strong
  $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
target_link_options(kestrin_flags INTERFACE -pie -Wl,-z,relro,-z,now)

if(KESTRIN_SANITIZE)
  list(JOIN KESTRIN_SANITIZE "," _kestrin_sanitizers)
  target_compile_options(kestrin_flags INTERFACE
    -fsanitize=${_kestrin_sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(kestrin_flags INTERFACE -fsanitize=${_kestrin_sanitizers})
endif()

if(KESTRIN_BUILD_FUZZERS)
  # Coverage for libFuzzer in every target; only the fuzz programs link its engine.
  target_compile_options(kestrin_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

# g++ 12 at -O3 reports overlapping copies inside std::string's own concatenation (GCC bug
# 105329): a false alarm that failed Release builds of correct code.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(kestrin_flags INTERFACE -Wno-restrict)
endif()
