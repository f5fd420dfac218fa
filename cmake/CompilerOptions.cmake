# Flags that every target of the project shares; link to kx_options to get them.
option(KX_WERROR "Treat warnings as errors" ON)
option(KX_COVERAGE "Instrument for line coverage (gcov)" OFF)
option(KX_FUZZ "Build the fuzz targets (clang)" OFF)
set(KX_SANITIZE "" CACHE STRING "Sanitizers to build with, a list such as address;undefined")

add_library(kx_options INTERFACE)
target_compile_features(kx_options INTERFACE cxx_std_17)
target_compile_options(kx_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wformat=2
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wno-gnu-zero-variadic-macro-arguments> # QSKIP of Qt 5
  $<$<BOOL:${KX_WERROR}>:-Werror>
  -fstack-protector-strong)
# On a 32-bit terminal too, the clock goes on after January 2038 and files are of any size. Elsewhere that is so
# anyway, and the definitions would only give some C functions other names.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(kx_options INTERFACE _TIME_BITS=64 _FILE_OFFSET_BITS=64)
  # Notes that a compiler of ten years ago passed some arguments in other registers.
  target_compile_options(kx_options INTERFACE -Wno-psabi)
endif()
# Fortification needs optimisation; with a sanitizer it only hides what the sanitizer would report.
if(NOT KX_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_options(kx_options INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
target_link_options(kx_options INTERFACE -Wl,-z,relro,-z,now -Wl,--as-needed)

if(KX_SANITIZE)
  list(JOIN KX_SANITIZE "," _kx_sanitizers)
  target_compile_options(kx_options INTERFACE
    -fsanitize=${_kx_sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(kx_options INTERFACE -fsanitize=${_kx_sanitizers})
endif()
# All code under test reports its branches to the fuzzer; only the targets have the fuzzer's main.
if(KX_FUZZ)
  target_compile_options(kx_options INTERFACE -fsanitize=fuzzer-no-link)
  target_compile_definitions(kx_options INTERFACE QT_FORCE_ASSERTS)
  target_link_options(kx_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
