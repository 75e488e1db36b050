#include "shared/platform/linux/foundation/url/CurlLibrary.h"

#include <dlfcn.h>

#include <string>

namespace {

/// By the name of its interface, which all releases since 7.16 share.
constexpr char kLibraryName[] = "libcurl.so.4";

/// The first release with all the options that the port sets; CURLOPT_QUICK_EXIT is the last.
constexpr unsigned kOldestRelease = 0x075700;
constexpr char kOldestReleaseText[] = "7.87.0";

struct LoadedLibrary {
  CurlLibrary functions = {};
  std::string failure;  // Empty when the library can be used.

  LoadedLibrary() {
    // Never closed: libcurl's own libraries cannot be unloaded safely.
    void* const handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (handle != nullptr && !CheckRelease(handle)) {
      return;
    }
    if (handle == nullptr || !FindAll(handle)) {
      const char* const text = dlerror();
      failure = text == nullptr || *text == '\0' ? "libcurl cannot be loaded" : text;
      return;
    }
    const CURLcode result = functions.global_init(CURL_GLOBAL_DEFAULT);
    if (result != CURLE_OK) {
      failure = functions.easy_strerror(result);
    }
  }

 private:
  /// Called before FindAll(), since an older release may also lack functions. Returns false with
  /// `failure` set.
  bool CheckRelease(void* handle) {
    const auto info =
        reinterpret_cast<decltype(&curl_version_info)>(dlsym(handle, "curl_version_info"));
    if (info == nullptr || info(CURLVERSION_NOW)->version_num >= kOldestRelease) {
      return true;
    }
    failure = std::string("libcurl ") + info(CURLVERSION_NOW)->version +
              " is too old: " + kOldestReleaseText + " or later is needed";
    return false;
  }

  /// False, with dlerror(3) set, for a release that lacks one of them.
  bool FindAll(void* handle) {
#define KP_FIND_CURL_FUNCTION(NAME)                                                          \
  functions.NAME = reinterpret_cast<decltype(functions.NAME)>(dlsym(handle, "curl_" #NAME)); \
  if (functions.NAME == nullptr) {                                                           \
    return false;                                                                            \
  }
    KP_CURL_FUNCTIONS(KP_FIND_CURL_FUNCTION)
#undef KP_FIND_CURL_FUNCTION
    return true;
  }
};

const LoadedLibrary& TheLibrary() {
  // Never destroyed: a thread may ask while the program ends.
  static const LoadedLibrary& s_library = *new LoadedLibrary;
  return s_library;
}

}  // namespace

const CurlLibrary* LoadedCurlLibrary(const char** reason) {
  const LoadedLibrary& library = TheLibrary();
  if (!library.failure.empty()) {
    *reason = library.failure.c_str();
    return nullptr;
  }
  return &library.functions;
}

const CurlLibrary& Curl() { return TheLibrary().functions; }
