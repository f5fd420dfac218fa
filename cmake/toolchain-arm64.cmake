# Terminals with a 64-bit ARM processor.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(_kx_arch arm64)
set(_kx_triplet aarch64-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/CrossCompile.cmake")
