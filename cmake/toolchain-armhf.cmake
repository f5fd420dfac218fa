# Terminals with a 32-bit ARM processor (ARMv7, hard float).
set(CMAKE_SYSTEM_PROCESSOR arm)
set(_kx_arch armhf)
set(_kx_triplet arm-linux-gnueabihf)
include("${CMAKE_CURRENT_LIST_DIR}/CrossCompile.cmake")
