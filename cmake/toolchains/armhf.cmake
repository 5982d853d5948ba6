# Cross build for 32-bit ARM Linux (armhf, hard float), the platform the library ships on.
#
# Compiler: Debian's cross toolchain (g++-arm-linux-gnueabihf); its libc, libgcc_s and libstdc++
# live in /usr/arm-linux-gnueabihf. Third-party libraries (JsonCpp, Boost, libuuid, GoogleTest)
# come from ZVR_ARMHF_SYSROOT, which scripts/armhf-sysroot fills with the armhf Debian packages.
# Test programs run under qemu-arm (Debian's qemu-user), both when gtest_discover_tests lists the
# tests at build time and under ctest.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(ZVR_ARMHF_TRIPLET arm-linux-gnueabihf)
set(ZVR_ARMHF_TOOLCHAIN_ROOT /usr/${ZVR_ARMHF_TRIPLET})

# The sysroot: the cache variable (the armhf preset sets it), else the environment, else the
# default place of scripts/armhf-sysroot. try_compile projects load this file again and see the
# value through CMAKE_TRY_COMPILE_PLATFORM_VARIABLES.
if(NOT ZVR_ARMHF_SYSROOT)
  if(DEFINED ENV{ZVR_ARMHF_SYSROOT})
    set(ZVR_ARMHF_SYSROOT "$ENV{ZVR_ARMHF_SYSROOT}")
  else()
    get_filename_component(ZVR_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/armhf-sysroot"
                           ABSOLUTE)
  endif()
endif()
set(ZVR_ARMHF_SYSROOT "${ZVR_ARMHF_SYSROOT}" CACHE PATH "armhf libraries (scripts/armhf-sysroot)")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZVR_ARMHF_SYSROOT)

if(NOT EXISTS "${ZVR_ARMHF_SYSROOT}/usr/lib/${ZVR_ARMHF_TRIPLET}")
  message(FATAL_ERROR
    "No armhf sysroot at ${ZVR_ARMHF_SYSROOT}: run scripts/armhf-sysroot first")
endif()

find_program(ZVR_ARMHF_CC ${ZVR_ARMHF_TRIPLET}-gcc)
find_program(ZVR_ARMHF_CXX ${ZVR_ARMHF_TRIPLET}-g++)
if(NOT ZVR_ARMHF_CC OR NOT ZVR_ARMHF_CXX)
  message(FATAL_ERROR
    "${ZVR_ARMHF_TRIPLET}-gcc/g++ not found: install g++-arm-linux-gnueabihf (scripts/bootstrap)")
endif()
set(CMAKE_C_COMPILER ${ZVR_ARMHF_CC})
set(CMAKE_CXX_COMPILER ${ZVR_ARMHF_CXX})

# With --sysroot the compiler still takes libc and libstdc++ from its own tree (paths relative to
# its installation are not moved into the sysroot), while /usr/include and /usr/lib are replaced
# by the sysroot's: no header or library of the build machine leaks into the armhf build.
set(CMAKE_SYSROOT "${ZVR_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${ZVR_ARMHF_SYSROOT}" "${ZVR_ARMHF_TOOLCHAIN_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config, where a part of the build uses it, reads the sysroot's .pc files only.
set(ENV{PKG_CONFIG_LIBDIR}
    "${ZVR_ARMHF_SYSROOT}/usr/lib/${ZVR_ARMHF_TRIPLET}/pkgconfig:${ZVR_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ZVR_ARMHF_SYSROOT}")

# GCC notes on every std::vector of a class type that its parameter passing on ARM changed in
# GCC 7.1; everything here is built by the same compiler, so the note says nothing.
set(CMAKE_C_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# The libraries' own dependencies (libboost_thread.so needs libboost_atomic.so ...) resolve in the
# sysroot at link time.
set(_zvr_armhf_rpath_link
    "-Wl,-rpath-link,${ZVR_ARMHF_SYSROOT}/usr/lib/${ZVR_ARMHF_TRIPLET}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_zvr_armhf_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_zvr_armhf_rpath_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_zvr_armhf_rpath_link}")
unset(_zvr_armhf_rpath_link)

# qemu-arm: the dynamic loader, libc and libstdc++ from the cross toolchain's tree (-L), the
# third-party libraries from the sysroot (LD_LIBRARY_PATH inside the guest). The project's own
# shared libraries are found through the build tree's RPATH.
find_program(ZVR_QEMU_ARM qemu-arm)
if(NOT ZVR_QEMU_ARM)
  message(FATAL_ERROR "qemu-arm not found: install qemu-user (scripts/bootstrap)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR
    ${ZVR_QEMU_ARM} -L ${ZVR_ARMHF_TOOLCHAIN_ROOT}
    -E LD_LIBRARY_PATH=${ZVR_ARMHF_SYSROOT}/usr/lib/${ZVR_ARMHF_TRIPLET})
