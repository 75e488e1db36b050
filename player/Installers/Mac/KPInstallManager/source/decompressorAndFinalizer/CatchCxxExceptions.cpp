#include "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/CatchCxxExceptions.h"

#include <new>

CxxException CatchCxxExceptions(void (*function)(void*), void* context) {
  try {
    function(context);
    return CxxException::kNone;
  } catch (const std::bad_alloc&) {
    return CxxException::kOutOfMemory;
  } catch (...) {
    return CxxException::kOther;
  }
}
