# lzma_sdk: the encoder and decoder of the LZMA SDK as one static library.
#
# LZMA_SDK_DIR names a folder with LzmaEnc.c, LzmaDec.c and LzFind.c: the C folder of a current SDK,
# as scripts/fetch-lzma-sdk.sh writes it, or else Debian's lzma-dev (release 9.22), whose allocator
# functions take void* instead of ISzAllocPtr. Both compile. Only a current SDK has threads for
# matching.
find_path(LZMA_SDK_DIR NAMES LzmaDec.c
  PATHS "${CMAKE_SOURCE_DIR}/.cache/lzma-sdk/C" /usr/include/lzma
  DOC "Folder with the LZMA SDK's C sources" NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
message(STATUS "LZMA SDK: ${LZMA_SDK_DIR}")

# Its threads are POSIX threads in current SDKs only.
set(LZMA_SDK_THREADS)
if(EXISTS "${LZMA_SDK_DIR}/Threads.h")
  file(STRINGS "${LZMA_SDK_DIR}/Threads.h" LZMA_SDK_THREADS REGEX "pthread.h")
endif()

set(LZMA_SDK_SOURCES LzmaDec.c LzmaEnc.c LzFind.c)
if(LZMA_SDK_THREADS)
  list(APPEND LZMA_SDK_SOURCES LzFindMt.c Threads.c)
endif()
# LzFindOpt.c and CpuArch.c exist, and are needed, in current SDKs only.
foreach(SOURCE LzFindOpt.c CpuArch.c)
  if(EXISTS "${LZMA_SDK_DIR}/${SOURCE}")
    list(APPEND LZMA_SDK_SOURCES "${SOURCE}")
  endif()
endforeach()
list(TRANSFORM LZMA_SDK_SOURCES PREPEND "${LZMA_SDK_DIR}/")

add_library(lzma_sdk STATIC ${LZMA_SDK_SOURCES})
target_include_directories(lzma_sdk SYSTEM PUBLIC "${LZMA_SDK_DIR}")
if(LZMA_SDK_THREADS)
  find_package(Threads REQUIRED)
  target_link_libraries(lzma_sdk PUBLIC Threads::Threads)
else()
  # Single-thread switch: old and new name.
  target_compile_definitions(lzma_sdk PUBLIC _7ZIP_ST Z7_ST)
endif()
target_compile_options(lzma_sdk PRIVATE -O3 -w)
if(KP_SANITIZE MATCHES "address")
  # Checked for memory faults too, but not for integer overflows, which the SDK uses on purpose.
  target_compile_options(lzma_sdk PRIVATE -fsanitize=address -gline-tables-only)
endif()
