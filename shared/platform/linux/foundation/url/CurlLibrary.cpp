#include "shared/platform/linux/foundation/url/CurlLibrary.h"

#include <dlfcn.h>

#include <string>

namespace {

/// By the name of its interface, which all releases since 7.16 share.
constexpr char kLibraryName[] = "libcurl.so.4";

/// The first release with all the options that the port sets; CURLOPT_QUICK_EXIT is the last. An
/// older one would refuse them one by one, and a request would run without.
constexpr unsigned kOldestRelease = 0x075700;
constexpr char kOldestReleaseText[] = "7.87.0";

struct LoadedLibrary {
  CurlLibrary functions = {};
  std::string failure;  // Empty when all is there.

  LoadedLibrary() {
    // Never closed: libcurl's own libraries cannot be unloaded safely.
    void* const handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      NoteLinkerFailure();
      return;
    }
    // First: an older release may lack functions, too.
    Find(handle, "curl_version_info", functions.version_info);
    if (!failure.empty()) return;
    CheckRelease(*functions.version_info(CURLVERSION_NOW));
    if (!failure.empty()) return;
    FindAll(handle);
    if (!failure.empty()) return;
    const CURLcode result = functions.global_init(CURL_GLOBAL_DEFAULT);
    if (result != CURLE_OK) failure = functions.easy_strerror(result);
  }

 private:
  void CheckRelease(const curl_version_info_data& found) {
    if (found.version_num >= kOldestRelease) return;
    failure = std::string("libcurl ") + found.version + " is too old: " + kOldestReleaseText +
              " or later is needed";
  }

  void FindAll(void* handle) {
    Find(handle, "curl_global_init", functions.global_init);
    Find(handle, "curl_free", functions.free);
    Find(handle, "curl_slist_append", functions.slist_append);
    Find(handle, "curl_slist_free_all", functions.slist_free_all);
    Find(handle, "curl_url", functions.url);
    Find(handle, "curl_url_cleanup", functions.url_cleanup);
    Find(handle, "curl_url_set", functions.url_set);
    Find(handle, "curl_url_get", functions.url_get);
    Find(handle, "curl_easy_init", functions.easy_init);
    Find(handle, "curl_easy_cleanup", functions.easy_cleanup);
    Find(handle, "curl_easy_setopt", functions.easy_setopt);
    Find(handle, "curl_easy_getinfo", functions.easy_getinfo);
    Find(handle, "curl_easy_strerror", functions.easy_strerror);
    Find(handle, "curl_multi_init", functions.multi_init);
    Find(handle, "curl_multi_cleanup", functions.multi_cleanup);
    Find(handle, "curl_multi_setopt", functions.multi_setopt);
    Find(handle, "curl_multi_add_handle", functions.multi_add_handle);
    Find(handle, "curl_multi_remove_handle", functions.multi_remove_handle);
    Find(handle, "curl_multi_info_read", functions.multi_info_read);
    Find(handle, "curl_multi_socket_action", functions.multi_socket_action);
  }

  template <typename Function>
  void Find(void* handle, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(handle, name));
    if (function == nullptr && failure.empty()) NoteLinkerFailure();
  }

  void NoteLinkerFailure() {
    const char* const text = dlerror();
    failure = text == nullptr || *text == '\0' ? "libcurl cannot be loaded" : text;
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
