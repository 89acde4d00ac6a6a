# 32-bit ARM, hard float.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(WMBUSCTL_MACHINE armhf)
set(WMBUSCTL_TRIPLET arm-linux-gnueabihf)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # all of it comes from one compiler
include(${CMAKE_CURRENT_LIST_DIR}/gateway.cmake)
