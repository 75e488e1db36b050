// Entry of the finalizer, which the installer package runs once, as root.
#import <Foundation/Foundation.h>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PerformMain.h"

int main(int argc, char** argv) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  const int status = PerformMain(argc, argv);
  [pool release];
  return status;
}
