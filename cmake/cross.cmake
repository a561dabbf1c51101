# What the cross builds share: the compilers of ORX_TRIPLET, and its libraries where Debian's multiarch puts them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${ORX_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ORX_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ORX_TRIPLET})
# headers are the same for every architecture and lie in /usr/include, which the compiler knows; libraries and the
# CMake files of packages lie in a folder of their architecture
set(CMAKE_FIND_ROOT_PATH /usr/${ORX_TRIPLET} /usr/lib/${ORX_TRIPLET})

# What only the companions and orxzmf link comes from a tree of that architecture's packages (scripts/package.sh makes
# one), since apt cannot always install those beside this machine's own.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORX_SYSROOT)
if(ORX_SYSROOT)
  set(folders ${ORX_SYSROOT}/usr/lib/${ORX_TRIPLET}:${ORX_SYSROOT}/lib/${ORX_TRIPLET})
  list(APPEND CMAKE_FIND_ROOT_PATH ${ORX_SYSROOT})
  list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -L ${ORX_SYSROOT})
  set(CMAKE_CXX_FLAGS_INIT "-idirafter ${ORX_SYSROOT}/usr/include/${ORX_TRIPLET} -idirafter ${ORX_SYSROOT}/usr/include")
  set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-rpath-link,${folders})
endif()
