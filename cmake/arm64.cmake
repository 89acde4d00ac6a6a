# 64-bit ARM.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(WMBUSCTL_MACHINE arm64)
set(WMBUSCTL_TRIPLET aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/gateway.cmake)
