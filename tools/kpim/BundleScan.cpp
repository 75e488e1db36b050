#include "tools/kpim/BundleScan.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "player/utils/InstallerCompressor/CommonInstallerCompressor.h"
#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "tools/kpim/Report.h"

namespace kpim {

namespace {

// The length of a name is stored in one byte.
constexpr size_t kMaximumNameLength = 0xFF;

constexpr char kOutputInside[] = "the blob must not be written into the bundle that it is made of";

constexpr char kInfoPlist[] = "Contents/Info.plist";
constexpr char kAppleDoublePrefix[] = "._";
constexpr const char* kVersionControlNames[] = {".git", ".hg", ".svn", ".bzr", "CVS"};
constexpr mode_t kExecuteBits = S_IXUSR | S_IXGRP | S_IXOTH;

bool IsVersionControl(const std::string& name) {
  return std::find(std::begin(kVersionControlNames), std::end(kVersionControlNames), name) !=
         std::end(kVersionControlNames);
}

unsigned long HeaderLength(const std::string& name) {
  return SizeofFormattedGenericHeader(const_cast<char*>(name.c_str()));
}

}  // namespace

bool BundleScan::Scan(const std::string& bundle) {
  bundle_ = bundle;
  struct stat status = {};
  if (stat(bundle.c_str(), &status) != 0) {
    Refuse("", strerror(errno));
  } else if (!S_ISDIR(status.st_mode)) {
    Refuse("", strerror(ENOTDIR));
  } else {
    blobBytes_ = HeaderLength("");
    ScanDirectory("", IdentityOf(status));
    WarnOfAbsences();
  }
  if (blobBytes_ > kMaximumBlobLength) {
    Refuse("", kBlobTooLarge);
  }
  return !refused_;
}

void BundleScan::WarnOfAbsences() {
  if (!hasInfoPlist_) {
    warnings_.Add(PackWarningKind::kNoInfoPlist, "");
  }
  for (const std::string& glob : exclusion_.Unmatched()) {
    warnings_.Add(PackWarningKind::kUnmatchedExclude, glob);
  }
}

void BundleScan::ScanDirectory(const std::string& path, FileIdentity identity) {
  if (identity == outputDirectory_) {
    Refuse(path, kOutputInside);
    return;
  }
  if (std::find(open_.begin(), open_.end(), identity) != open_.end()) {
    Refuse(path, "a link to a directory around it");
    return;
  }
  // The root of the blob is the first level.
  if (open_.size() >= kMaximumNesting) {
    Refuse(path, "nested too deeply: more than " + std::to_string(kMaximumNesting) + " levels");
    return;
  }
  std::vector<std::string> names;
  if (const int error = ListDirectory(JoinPath(bundle_, path), names)) {
    Refuse(path, strerror(error));
    return;
  }
  open_.push_back(identity);
  for (const std::string& name : names) {
    // Through links a small folder can have very many entries: after the limit all are skipped.
    if (!PlatformFilenameAllowed(name.c_str()) || blobBytes_ > kMaximumBlobLength) {
      continue;
    }
    const std::string entry = JoinPath(path, name);
    if (!exclusion_.Excludes(entry)) {
      ScanEntry(entry, name);
    }
  }
  open_.pop_back();
}

void BundleScan::ScanEntry(const std::string& path, const std::string& name) {
  const std::string fullPath = JoinPath(bundle_, path);
  struct stat status = {};
  int result = lstat(fullPath.c_str(), &status);
  const bool isLink = result == 0 && S_ISLNK(status.st_mode);
  if (isLink) {
    result = stat(fullPath.c_str(), &status);
  }
  if (result != 0) {
    Refuse(path, isLink && errno == ENOENT ? "a link to a missing item" : strerror(errno));
    return;
  }
  if (isLink) {
    warnings_.Add(PackWarningKind::kLink, path);
    ++linksFollowed_;
  }
  ScanFollowedEntry(path, name, status);
  if (isLink) {
    --linksFollowed_;
  }
}

void BundleScan::ScanFollowedEntry(const std::string& path, const std::string& name,
                                   const struct stat& status) {
  if (name.size() > kMaximumNameLength) {
    // Untested: no file system here has such names.
    Refuse(path, "name too long for a blob: more than 255 bytes");
    return;
  }
  ++totals_.entries;
  blobBytes_ += HeaderLength(name);
  if (IsVersionControl(name)) {
    warnings_.Add(PackWarningKind::kVersionControl, path);
  }
  if (S_ISDIR(status.st_mode)) {
    ScanDirectory(path, IdentityOf(status));
  } else if (S_ISREG(status.st_mode)) {
    ScanFile(path, name, status);
  } else {
    Refuse(path, "neither a file nor a directory");
  }
}

void BundleScan::ScanFile(const std::string& path, const std::string& name,
                          const struct stat& status) {
  if (IdentityOf(status) == outputFile_) {
    Refuse(path, kOutputInside);
    return;
  }
  const auto bytes = static_cast<unsigned long>(status.st_size);
  if (bytes > kMaximumBlobLength) {
    Refuse(path, kBlobTooLarge);
    return;
  }
  if (access(JoinPath(bundle_, path).c_str(), R_OK) != 0) {
    Refuse(path, strerror(errno));
    return;
  }
  totals_.bytes += bytes;
  blobBytes_ += bytes;
  if (linksFollowed_ > 0) {
    warnings_.AddLinkedBytes(bytes);
  }
  if ((status.st_mode & kExecuteBits) != 0) {
    warnings_.Add(PackWarningKind::kExecuteBit, path);
  }
  if (name.rfind(kAppleDoublePrefix, 0) == 0) {
    warnings_.Add(PackWarningKind::kAppleDouble, path);
  }
  hasInfoPlist_ = hasInfoPlist_ || path == kInfoPlist;
}

void BundleScan::Refuse(const std::string& path, const std::string& why) {
  ReportError(JoinPath(bundle_, path), why);
  refused_ = true;
}

}  // namespace kpim
