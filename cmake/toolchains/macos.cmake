# Cross build for one architecture of macOS with clang, lld and LLVM's binary tools.
# MACOS_ARCHITECTURE is x86_64 (macOS 10.6 and later) or arm64 (11.0 and later).
# MACOS_SDK, a variable of CMake or of the environment, names the SDK's folder.
# docs/macos.md lists what must be in it.
set(MACOS_ARCHITECTURE x86_64 CACHE STRING "x86_64 or arm64")
if(MACOS_ARCHITECTURE STREQUAL "x86_64")
  set(OLDEST_MACOS 10.6)
elseif(MACOS_ARCHITECTURE STREQUAL "arm64")
  set(OLDEST_MACOS 11.0)
else()
  message(FATAL_ERROR "MACOS_ARCHITECTURE must be x86_64 or arm64; it is \"${MACOS_ARCHITECTURE}\"")
endif()
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR "${MACOS_ARCHITECTURE}")
set(CMAKE_OSX_ARCHITECTURES "${MACOS_ARCHITECTURE}")
set(CMAKE_OSX_DEPLOYMENT_TARGET "${OLDEST_MACOS}" CACHE STRING "Oldest macOS that the build is for")

# In the cache, so that a later run of CMake without the environment keeps it.
set(MACOS_SDK "$ENV{MACOS_SDK}" CACHE PATH "The macOS SDK's folder")
if(NOT MACOS_SDK OR NOT IS_DIRECTORY "${MACOS_SDK}/usr/include")
  message(FATAL_ERROR "MACOS_SDK must name a macOS SDK's folder; it is \"${MACOS_SDK}\"")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MACOS_SDK MACOS_ARCHITECTURE)
set(CMAKE_OSX_SYSROOT "${MACOS_SDK}")

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
foreach(LANGUAGE C CXX OBJCXX)
  set(CMAKE_${LANGUAGE}_COMPILER_TARGET "${MACOS_ARCHITECTURE}-apple-macosx")
endforeach()
foreach(LANGUAGE CXX OBJCXX)
  set(CMAKE_${LANGUAGE}_FLAGS_INIT "-stdlib++-isystem \"${MACOS_SDK}/usr/include/c++/v1\"")
endforeach()
# lld starts a program by LC_MAIN and needs no start file. The room in the header is for the load
# commands that signing adds.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -nostartfiles -Wl,-headerpad,0x100")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-fuse-ld=lld -nostartfiles")

# Distributions that package several releases of LLVM add the release to the name.
foreach(TOOL AR RANLIB NM STRIP OTOOL INSTALL_NAME_TOOL LIPO)
  string(TOLOWER "${TOOL}" TOOL_NAME)
  string(REPLACE "_" "-" TOOL_NAME "${TOOL_NAME}")
  find_program(CMAKE_${TOOL} NAMES llvm-${TOOL_NAME} llvm-${TOOL_NAME}-14 REQUIRED)
endforeach()

# Only the SDK's headers, libraries and frameworks; programs are the host's.
set(CMAKE_FIND_ROOT_PATH "${MACOS_SDK}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The compiler is tried out without linking: an SDK may have no link stubs.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
