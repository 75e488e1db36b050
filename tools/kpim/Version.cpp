#include "tools/kpim/Version.h"

#include "KPVendorConfig.h"

namespace kpim {

const char kVersionText[] =
    "kpim " KP_VERSION_TEXT "\ndownload server: " KP_DOWNLOAD_HOST "\nweb site: " KP_VENDOR_WEB_HOST
    "\nuninstaller: " KP_UNINSTALLER_URL "\n";

}  // namespace kpim
