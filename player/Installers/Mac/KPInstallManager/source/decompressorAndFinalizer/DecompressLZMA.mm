#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/DecompressLZMA.h"

#include <cerrno>
#include <cstring>

#include "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/BlobLock.h"
#import "player/Installers/Mac/KPInstallManager/source/decompressorAndFinalizer/GlobalLogger.h"
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMPaths.h"
#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"
#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "shared/platform/posix/Removal.h"

namespace {

NSString* const kBlobExtension = @"lzma";

const char* const kBootVolume = "/";

void Log(unsigned int level, NSString* format, NSString* argument) {
  [g_logger logTimeStampedString:[NSString stringWithFormat:format, argument]
                withLoggingLevel:level];
}

void LogError(NSString* line) {
  [g_logger logTimeStampedString:line withLoggingLevel:kLogLevelError];
}

void LogReadError(int error) {
  const char* reason = error == kFileBecameShorter ? "it has become shorter" : strerror(error);
  LogError([NSString stringWithFormat:@"ERROR: The payload blob cannot be read: %s.", reason]);
}

void LogFault(const BlobFault& fault) {
  if (fault.isWantOfMemory) {
    LogReadError(ENOMEM);
    return;
  }
  NSString* place = fault.inDecodedContent ? @" in the decoded content" : @"";
  LogError([NSString stringWithFormat:@"ERROR: The payload blob is malformed: %s%@ at byte %lu.",
                                      fault.reason, place, fault.offset]);
}

// Returns whether a blob that cannot be opened for the reason `error`, an errno value, counts as an
// empty one. Other errors are logged.
bool CountsAsEmptyBlob(int error) {
  return error == ENOTSUP || error == EACCES || error == EPERM || error == ELOOP || error == ENXIO;
}

// Returns false when the blob is missing. A blob that cannot be locked is used without the lock.
bool LockBlob(BlobLock& lock, NSString* path) {
  const BlobLockResult result = lock.Take([path UTF8String]);
  if (result == BlobLockResult::kNotLocked) {
    const char* reason =
        lock.Error() == EWOULDBLOCK ? "another process holds it" : strerror(lock.Error());
    LogError([NSString stringWithFormat:@"ERROR: The payload blob cannot be locked: %s.", reason]);
  }
  if (result == BlobLockResult::kUnreadable && !CountsAsEmptyBlob(lock.Error())) {
    LogReadError(lock.Error());
  }
  return result != BlobLockResult::kMissing;
}

// Removes the item at `path` below `root`. A link is removed itself, not its target.
void RemoveOldBundle(const char* root, const char* path) {
  const RemovalResult result = RemoveTree(root, path);
  if (result.refused != 0) {
    LogError([NSString
        stringWithFormat:@"ERROR: %lu of the old bundle's items could not be removed: %s.",
                         result.refused, strerror(result.error)]);
  }
}

// Decodes the open blob into a list that the caller frees; null for an empty blob and for one that
// is refused. A blob that cannot be read to its end is refused, because zeros in place of the
// missing bytes could pass for content.
fileChunk* DecodeBlob(int descriptor) {
  if (descriptor < 0) {
    return nullptr;
  }
  int readError = 0;
  fileChunk* source = PlatformCreateSourceFromDescriptor(descriptor, readError);
  BlobFault fault;
  if (source != nullptr) {
    fileChunk* tree = DismantleInstallerBlob(source, fault);
    DeleteFileChunks(source);
    if (fault.reason == nullptr) {
      return tree;
    }
    LogFault(fault);
  } else if (readError == EFBIG) {
    fault.reason = kBlobTooLarge;
    fault.offset = kMaximumBlobLength;
    LogFault(fault);
  } else {
    LogReadError(readError);
  }
  return nullptr;
}

// Returns the path as text for the log. Control characters, which a name from the blob may contain,
// become '?', so that they cannot break the line.
NSString* LoggablePath(char* path) {
  for (char* character = path; *character != '\0'; ++character) {
    const auto byte = static_cast<unsigned char>(*character);
    if (byte < ' ' || byte == 0x7F) {
      *character = '?';
    }
  }
  NSString* text = [NSString stringWithUTF8String:path];
  return text != nil ? text : [NSString stringWithCString:path encoding:NSISOLatin1StringEncoding];
}

void LogUnwritten(const SinkReport& report, NSString* outputPath) {
  if (report.failed == 0) {
    return;
  }
  Log(kLogLevelError, @"Error writing file: '%@'.",
      report.path != nullptr ? LoggablePath(report.path) : outputPath);
  LogError([NSString
      stringWithFormat:@"ERROR: %lu of %lu entries of the payload could not be written: %s.",
                       report.failed, report.entries, strerror(report.error)]);
}

}  // namespace

int DecompressLZMA(NSString* installRoot) {
  NSString* outputPath = installRoot != nil
                             ? [installRoot stringByAppendingPathComponent:kPluginBundlePath]
                             : kPluginBundlePath;
  NSString* inputPath = [outputPath stringByAppendingPathExtension:kBlobExtension];
  Log(kLogLevelInformation, @"Compression Output Path: '%@'.", outputPath);
  Log(kLogLevelInformation, @"Compression Input Path: '%@'.", inputPath);

  // The lock is held until the blob is removed. Another finalizer then finds no blob, or the next
  // one.
  BlobLock lock;
  if (![[NSFileManager defaultManager] fileExistsAtPath:inputPath] || !LockBlob(lock, inputPath)) {
    Log(kLogLevelError, @"Input path not found: '%@'.", inputPath);
    return 1;
  }

  // Other users may write in the folders on the way, so the bundle is not reached by its full path.
  const char* root = [installRoot length] != 0 ? [installRoot UTF8String] : kBootVolume;
  const char* bundle = [kPluginBundlePath UTF8String];
  RemoveOldBundle(root, bundle);

  fileChunk* tree = DecodeBlob(lock.Descriptor());
  int result = 0;
  SinkReport report;
  // The result is always true; `report` has what could not be written.
  if (!PlatformWriteFileFromChunk(root, bundle, tree, report)) {
    Log(kLogLevelError, @"Error writing file: '%@'.", outputPath);
    result = 1;
  }
  LogUnwritten(report, outputPath);
  DeleteFileChunks(tree);
  (void)RemoveTree(root,
                   [[kPluginBundlePath stringByAppendingPathExtension:kBlobExtension] UTF8String]);
  return result;
}
