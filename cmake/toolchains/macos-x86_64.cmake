# Cross build for macOS 10.6 and later with clang, lld and LLVM's binary tools.
# MACOS_SDK, a variable of CMake or of the environment, names the SDK's folder.
# docs/macos.md tells what must be in it.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_OSX_ARCHITECTURES x86_64)
set(CMAKE_OSX_DEPLOYMENT_TARGET 10.6 CACHE STRING "Oldest macOS that the build is for")

# In the cache, so that a later run of CMake without the environment keeps it.
set(MACOS_SDK "$ENV{MACOS_SDK}" CACHE PATH "The macOS SDK's folder")
if(NOT MACOS_SDK OR NOT IS_DIRECTORY "${MACOS_SDK}/usr/include")
  message(FATAL_ERROR "MACOS_SDK must name a macOS SDK's folder; it is \"${MACOS_SDK}\"")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MACOS_SDK)
set(CMAKE_OSX_SYSROOT "${MACOS_SDK}")

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
foreach(LANGUAGE C CXX OBJCXX)
  set(CMAKE_${LANGUAGE}_COMPILER_TARGET x86_64-apple-macosx)
endforeach()
foreach(LANGUAGE CXX OBJCXX)
  set(CMAKE_${LANGUAGE}_FLAGS_INIT "-stdlib++-isystem \"${MACOS_SDK}/usr/include/c++/v1\"")
endforeach()
# lld starts a program by LC_MAIN and needs no start file.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -nostartfiles")

# Distributions that package several releases of LLVM add the release to the name.
foreach(TOOL AR RANLIB NM STRIP OTOOL INSTALL_NAME_TOOL)
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
