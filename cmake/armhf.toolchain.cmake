# 32-bit ARM, hard-float: Debian's cross compiler and a sysroot out of Debian's packages.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# CMake reads this file again in its own test builds, which see only the variables listed here.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SDCARDD_ARMHF_SYSROOT)
if(NOT SDCARDD_ARMHF_SYSROOT)
    execute_process(COMMAND "${CMAKE_CURRENT_LIST_DIR}/armhf-sysroot.sh"
                    OUTPUT_VARIABLE sysroot OUTPUT_STRIP_TRAILING_WHITESPACE
                    COMMAND_ERROR_IS_FATAL ANY)
    set(SDCARDD_ARMHF_SYSROOT "${sysroot}" CACHE PATH "Headers and libraries of the target")
endif()
set(CMAKE_SYSROOT "${SDCARDD_ARMHF_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm-static;-L;${CMAKE_SYSROOT}")
