# Values that the vendor sets. The defaults are reserved names, so that a build
# that nobody configured reaches no one (RFC 2606).
set(KP_VENDOR_WEB_HOST "www.tarvix.example" CACHE STRING
  "Web site of the redirect page, and the host-named folder in the updater's path")
set(KP_DOWNLOAD_HOST "download.tarvix.example" CACHE STRING
  "Download server of the pingback and of the version description")
set(KP_UNINSTALLER_URL "http://www.tarvix.example/software/korvel/uninstaller.html" CACHE STRING
  "Page from which the uninstaller is downloaded")

set(KP_GENERATED_INCLUDE_DIR "${CMAKE_BINARY_DIR}/generated")
configure_file("${CMAKE_SOURCE_DIR}/cmake/KPVendorConfig.h.in"
  "${KP_GENERATED_INCLUDE_DIR}/KPVendorConfig.h" @ONLY)
target_include_directories(kp_options INTERFACE "${KP_GENERATED_INCLUDE_DIR}")
