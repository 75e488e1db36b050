# Precompiles Foundation and some headers of the C++ library, which most sources include. scripts/lint.sh
# compiles without them, so a source that lacks an include fails there.
set(SOURCES)
foreach(EXTENSION cpp mm)
  set(SOURCE "${CMAKE_BINARY_DIR}/generated/Precompiled.${EXTENSION}")
  file(GENERATE OUTPUT "${SOURCE}" CONTENT "")
  list(APPEND SOURCES "${SOURCE}")
endforeach()
add_library(kp_precompiled STATIC ${SOURCES})
target_link_libraries(kp_precompiled PRIVATE kp_options host_headers GNUstep::Base)
set(CXX_HEADERS <algorithm> <functional> <memory> <string>)
target_precompile_headers(kp_precompiled PRIVATE
  ${CXX_HEADERS} "$<$<COMPILE_LANGUAGE:OBJCXX>:<Foundation/Foundation.h$<ANGLE-R>>")
foreach(TARGET install_manager platform_utils settings_facade_archive update_services_objects
    host_foundation host_functions host_url)
  target_precompile_headers(${TARGET} REUSE_FROM kp_precompiled)
endforeach()
# kpim is compiled with other options, so it needs headers of its own.
if(TARGET kpim)
  target_precompile_headers(kpim PRIVATE ${CXX_HEADERS})
endif()
