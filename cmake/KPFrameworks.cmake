# kp_host: the macOS frameworks that the product uses.
add_library(kp_host INTERFACE)
target_link_libraries(kp_host INTERFACE
  "-framework Foundation"
  "-framework SystemConfiguration"
  "-framework Security"
  "-framework ServiceManagement")
