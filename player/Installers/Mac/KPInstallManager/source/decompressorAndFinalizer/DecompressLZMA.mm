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

/// Whether a blob that cannot be opened counts as an empty one: nothing is wrong with the machine.
bool IsNoBlob(int error) {
  return error == ENOTSUP || error == EACCES || error == EPERM || error == ELOOP || error == ENXIO;
}

/// False when there is no blob at `path`. What cannot be locked is used without it.
bool LockBlob(BlobLock& lock, NSString* path) {
  const BlobLockResult result = lock.Take([path UTF8String]);
  if (result == BlobLockResult::kNotLocked) {
    const char* reason =
        lock.Error() == EWOULDBLOCK ? "another process holds it" : strerror(lock.Error());
    LogError([NSString stringWithFormat:@"ERROR: The payload blob cannot be locked: %s.", reason]);
  }
  if (result == BlobLockResult::kUnreadable && !IsNoBlob(lock.Error())) {
    LogReadError(lock.Error());
  }
  return result != BlobLockResult::kMissing;
}

/// Removes what is at `path` below `root`, a link itself and never what it points to.
void RemoveOldBundle(const char* root, const char* path) {
  const RemovalResult result = RemoveTree(root, path);
  if (result.refused != 0) {
    LogError([NSString
        stringWithFormat:@"ERROR: %lu of the old bundle's items could not be removed: %s.",
                         result.refused, strerror(result.error)]);
  }
}

/// Decodes the open blob into a list that the caller frees; absent when nothing is in it.
/// Zeros in the place of what cannot be read could pass for content: such a blob is refused.
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
    fault.offset = kMaximumSize;
    LogFault(fault);
  } else {
    LogReadError(readError);
  }
  return nullptr;
}

/// A path for a line of the log: names come from the blob, and must not break the line.
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

  // Locked until the blob is removed: another finalizer then finds none, or the next one.
  BlobLock lock;
  if (![[NSFileManager defaultManager] fileExistsAtPath:inputPath] || !LockBlob(lock, inputPath)) {
    Log(kLogLevelError, @"Input path not found: '%@'.", inputPath);
    return 1;
  }

  // Other users may write in the folders on the way, so nothing below the root goes by its path.
  const char* root = [installRoot length] != 0 ? [installRoot UTF8String] : kBootVolume;
  const char* bundle = [kPluginBundlePath UTF8String];
  RemoveOldBundle(root, bundle);

  fileChunk* tree = DecodeBlob(lock.Descriptor());
  int result = 0;
  SinkReport report;
  // Writing reports success always; what it could not write is in the report.
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
