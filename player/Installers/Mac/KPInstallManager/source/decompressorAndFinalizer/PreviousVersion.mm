#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/PreviousVersion.h"

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#include "shared/platform/posix/RegularFile.h"

static NSString* const kPreviousVersionFile =
    @"/Library/Application Support/Velmora/previous_version.txt";

NSString* ReadPreviousVersion(NSString* installRoot) {
  NSString* path = [installRoot stringByAppendingPathComponent:kPreviousVersionFile];
  if (![[NSFileManager defaultManager] fileExistsAtPath:path]) {
    return nil;
  }
  [g_logger logTimeStampedString:@"Reading previous version file"
                withLoggingLevel:kLogLevelInformation];
  // Reading a FIFO would block.
  if (!IsRegularFile([path fileSystemRepresentation])) {
    return nil;
  }
  NSString* text = [NSString stringWithContentsOfURL:[NSURL fileURLWithPath:path]
                                            encoding:NSUTF8StringEncoding
                                               error:nullptr];
  return [text stringByTrimmingCharactersInSet:[NSCharacterSet whitespaceAndNewlineCharacterSet]];
}
