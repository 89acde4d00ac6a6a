# Cross build for a gateway, included by the toolchain file of its machine. The sysroot holds that
# machine's libcoap and GoogleTest, as Debian has them; scripts/build-arm makes it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${WMBUSCTL_TRIPLET}-g++)
set(CMAKE_EXE_LINKER_FLAGS_INIT -s)
set(CMAKE_SKIP_RPATH ON) # the gateway has no such folder
get_filename_component(WMBUSCTL_SYSROOT
                       "${CMAKE_CURRENT_LIST_DIR}/../build/${WMBUSCTL_MACHINE}-sysroot" ABSOLUTE CACHE)
set(CMAKE_FIND_ROOT_PATH ${WMBUSCTL_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/run-arm ${WMBUSCTL_MACHINE})
set(ENV{PKG_CONFIG_LIBDIR} ${WMBUSCTL_SYSROOT}/usr/lib/${WMBUSCTL_TRIPLET}/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${WMBUSCTL_SYSROOT})
