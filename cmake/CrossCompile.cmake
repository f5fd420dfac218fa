# What the toolchain files share: Debian's cross compiler for _kx_triplet with the folder that scripts/sysroot
# makes for _kx_arch.
set(CMAKE_SYSTEM_NAME Linux)
set(KX_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${_kx_arch}" CACHE PATH
  "Headers and libraries to build for ${_kx_arch} (scripts/sysroot makes them)")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KX_SYSROOT)
if(NOT EXISTS "${KX_SYSROOT}/packages")
  message(FATAL_ERROR "There is no '${KX_SYSROOT}': run scripts/sysroot ${_kx_arch}")
endif()
get_filename_component(CMAKE_SYSROOT "${KX_SYSROOT}" REALPATH)

set(CMAKE_C_COMPILER ${_kx_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${_kx_triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${_kx_triplet})

# Programs are this machine's; everything else is the sysroot's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/${_kx_triplet}/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
