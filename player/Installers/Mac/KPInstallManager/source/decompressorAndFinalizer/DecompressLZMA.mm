#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DecompressLZMA.h"

#include <cerrno>
#include <cstring>

#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPaths.h"
#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"
#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"

namespace {

NSString* const kBlobExtension = @"lzma";

void Log(unsigned int level, NSString* format, NSString* argument) {
  [g_logger logTimeStampedString:[NSString stringWithFormat:format, argument]
                withLoggingLevel:level];
}

void LogFault(const BlobFault& fault) {
  NSString* place = fault.inDecodedContent ? @" in the decoded content" : @"";
  NSString* line =
      [NSString stringWithFormat:@"ERROR: The payload blob is malformed: %s%@ at byte %lu.",
                                 fault.reason, place, fault.offset];
  [g_logger logTimeStampedString:line withLoggingLevel:kLogLevelError];
}

/// Why bytes of the blob are missing from memory.
struct ReadFault {
  bool hasOccurred = false;
  int error = 0;
};

void NoteReadFault(char const* /*path*/, int error, void* context) {
  // Nothing is missing: the size of a file of 4 GiB and more is cut to 32 bits, as in the format.
  if (error != EFBIG) {
    *static_cast<ReadFault*>(context) = {true, error};
  }
}

void LogReadFault(const ReadFault& fault) {
  const char* reason =
      fault.error == kFileBecameShorter ? "it has become shorter" : strerror(fault.error);
  NSString* line =
      [NSString stringWithFormat:@"ERROR: The payload blob cannot be read: %s.", reason];
  [g_logger logTimeStampedString:line withLoggingLevel:kLogLevelError];
}

/// Decodes the blob at `path` into a list that the caller frees; absent when nothing is in it.
/// Zeros stand for what cannot be read, and could pass for content: such a blob is refused.
fileChunk* DecodeBlob(NSString* path) {
  ReadFault readFault;
  BlobFault blobFault;
  fileChunk* source = PlatformCreateSourceFromPath([path UTF8String], NoteReadFault, &readFault);
  // One that cannot even be opened is as an empty one.
  const bool isIncomplete = source != nullptr && readFault.hasOccurred;
  fileChunk* tree = isIncomplete ? nullptr : DismantleInstallerBlob(source, blobFault);
  DeleteFileChunks(source);
  if (isIncomplete) {
    LogReadFault(readFault);
  }
  if (blobFault.reason != nullptr) {
    LogFault(blobFault);
  }
  return tree;
}

}  // namespace

int DecompressLZMA(NSString* installRoot) {
  NSFileManager* fileManager = [NSFileManager defaultManager];
  NSString* outputPath = installRoot != nil
                             ? [installRoot stringByAppendingPathComponent:kPluginBundlePath]
                             : kPluginBundlePath;
  NSString* inputPath = [outputPath stringByAppendingPathExtension:kBlobExtension];
  Log(kLogLevelInformation, @"Compression Output Path: '%@'.", outputPath);
  Log(kLogLevelInformation, @"Compression Input Path: '%@'.", inputPath);

  if (![fileManager fileExistsAtPath:inputPath]) {
    Log(kLogLevelError, @"Input path not found: '%@'.", inputPath);
    return 1;
  }

  // Without asking whether the bundle exists: for a dangling link in its place the answer is no,
  // and as long as it stays there nothing can be written. The link goes, never what it points to.
  [fileManager removeItemAtPath:outputPath error:nullptr];

  fileChunk* tree = DecodeBlob(inputPath);
  int result = 0;
  // Writing reports success always. This is where a sink that reports failures would be heard.
  if (!PlatformWriteFileFromChunk([outputPath UTF8String], tree)) {
    Log(kLogLevelError, @"Error writing file: '%@'.", outputPath);
    result = 1;
  }
  DeleteFileChunks(tree);
  [fileManager removeItemAtPath:inputPath error:nullptr];
  return result;
}
