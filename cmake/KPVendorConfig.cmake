# Generates the files with the vendor's values for the sources, scripts and tests.
include(KPVendorHosts)

set(KP_GENERATED_DIR "${CMAKE_BINARY_DIR}/generated")
foreach(FILE KPVendorConfig.h vendor-config.json)
  configure_file("${CMAKE_SOURCE_DIR}/cmake/${FILE}.in" "${KP_GENERATED_DIR}/${FILE}" @ONLY)
endforeach()
target_include_directories(kp_options INTERFACE "${KP_GENERATED_DIR}")
