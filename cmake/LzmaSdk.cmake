# lzma_sdk: the encoder and decoder of the LZMA SDK as one static library.
#
# LZMA_SDK_DIR names a folder with LzmaEnc.c, LzmaDec.c and LzFind.c: the C folder of a
# current SDK, as scripts/fetch-lzma-sdk.sh leaves it, else Debian's lzma-dev (release
# 9.22), whose allocator functions take void* instead of ISzAllocPtr. Both kinds compile.
find_path(LZMA_SDK_DIR NAMES LzmaDec.c
  PATHS "${CMAKE_SOURCE_DIR}/.cache/lzma-sdk/C" /usr/include/lzma
  DOC "Folder with the LZMA SDK's C sources" NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
message(STATUS "LZMA SDK: ${LZMA_SDK_DIR}")

set(LZMA_SDK_SOURCES)
# LzFindOpt.c and CpuArch.c exist, and are needed, in current SDKs only.
foreach(SOURCE LzmaDec.c LzmaEnc.c LzFind.c LzFindOpt.c CpuArch.c)
  if(EXISTS "${LZMA_SDK_DIR}/${SOURCE}")
    list(APPEND LZMA_SDK_SOURCES "${LZMA_SDK_DIR}/${SOURCE}")
  endif()
endforeach()

add_library(lzma_sdk STATIC ${LZMA_SDK_SOURCES})
target_include_directories(lzma_sdk SYSTEM PUBLIC "${LZMA_SDK_DIR}")
# Single-thread switch: old and new name.
target_compile_definitions(lzma_sdk PUBLIC _7ZIP_ST Z7_ST)
target_compile_options(lzma_sdk PRIVATE -O3 -w)
if(KP_SANITIZE MATCHES "address")
  # Memory faults count here too; the SDK's deliberate integer tricks do not.
  target_compile_options(lzma_sdk PRIVATE -fsanitize=address -g)
endif()
