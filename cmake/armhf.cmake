# Cross build for the gateway: 32-bit ARM, hard float. The sysroot holds Debian's armhf libcoap and
# GoogleTest; scripts/build-armhf makes it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_EXE_LINKER_FLAGS_INIT -s)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # all of it comes from one compiler
set(CMAKE_SKIP_RPATH ON)             # the gateway has no such folder
get_filename_component(WMBUSCTL_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot" ABSOLUTE
                       CACHE)
set(CMAKE_FIND_ROOT_PATH ${WMBUSCTL_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/run-armhf)
set(ENV{PKG_CONFIG_LIBDIR} ${WMBUSCTL_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${WMBUSCTL_SYSROOT})
