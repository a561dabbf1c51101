# Cross build for the ARM board: g++-arm-linux-gnueabihf, and with `dpkg --add-architecture armhf` libenet-dev:armhf
# (libgtest-dev:armhf and libgmock-dev:armhf for tests): scripts/install-deps.sh armhf installs them. Programs and
# tests run under qemu-user-static, with the libc of that architecture.
set(ORX_TRIPLET arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
