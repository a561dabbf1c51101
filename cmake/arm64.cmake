# Cross build for 64-bit ARM: as armhf.cmake, with g++-aarch64-linux-gnu and the packages of arm64.
set(ORX_TRIPLET aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
