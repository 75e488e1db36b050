#include "shared/platform/linux/foundation/url/CurlLibrary.h"

#include <dlfcn.h>

namespace {

/// By the name of its interface, which all releases since 7.16 share.
constexpr char kLibraryName[] = "libcurl.so.4";

/// The first release with all the options that the port sets; CURLOPT_QUICK_EXIT is the last.
constexpr unsigned kOldestRelease = 0x075700;
constexpr char kOldestReleaseText[] = "7.87.0";

/// The library, which is never released: a thread may ask while the program ends.
const CurlLibrary& Load() {
  CurlLibrary& library = *new CurlLibrary{};
  // Never closed: libcurl's own libraries cannot be unloaded safely.
  void* const handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
  bool isComplete = handle != nullptr;
  // The first that is missing ends the search, so that dlerror(3) names it.
#define KP_FIND_CURL_FUNCTION(NAME)                                                        \
  if (isComplete) {                                                                        \
    library.NAME = reinterpret_cast<decltype(library.NAME)>(dlsym(handle, "curl_" #NAME)); \
    isComplete = library.NAME != nullptr;                                                  \
  }
  KP_CURL_FUNCTIONS(KP_FIND_CURL_FUNCTION)
#undef KP_FIND_CURL_FUNCTION
  const auto* const info =
      library.version_info == nullptr ? nullptr : library.version_info(CURLVERSION_NOW);
  // Checked first: an old release may also lack functions.
  if (info != nullptr && info->version_num < kOldestRelease) {
    library.failure = std::string("libcurl ") + info->version +
                      " is too old: " + kOldestReleaseText + " or later is needed";
  } else if (!isComplete) {
    const char* const text = dlerror();
    library.failure = text == nullptr || *text == '\0' ? "libcurl cannot be loaded" : text;
  } else if (const CURLcode result = library.global_init(CURL_GLOBAL_DEFAULT)) {
    library.failure = library.easy_strerror(result);
  }
  return library;
}

}  // namespace

const CurlLibrary& Curl() {
  static const CurlLibrary& s_library = Load();
  return s_library;
}
