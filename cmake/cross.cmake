# What the cross builds share: the compilers of ORX_TRIPLET, and its libraries where Debian's multiarch puts them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${ORX_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ORX_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ORX_TRIPLET})
# headers are the same for every architecture and lie in /usr/include, which the compiler knows; libraries and the
# CMake files of packages lie in a folder of their architecture
set(CMAKE_FIND_ROOT_PATH /usr/${ORX_TRIPLET} /usr/lib/${ORX_TRIPLET})
