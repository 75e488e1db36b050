// A libcurl of the last release that is too old; it has only its version function.
#include <curl/curl.h>

extern "C" curl_version_info_data* curl_version_info(CURLversion) {
  static curl_version_info_data s_data = {};
  s_data.version = "7.86.0";
  s_data.version_num = 0x075600;
  return &s_data;
}
