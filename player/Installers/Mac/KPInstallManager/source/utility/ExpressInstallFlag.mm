#import "player/Installers/Mac/KPInstallManager/source/utility/ExpressInstallFlag.h"

#import <Foundation/Foundation.h>

#include "shared/platform/posix/Removal.h"

namespace {

constexpr char kFlagFolder[] = "/tmp";
constexpr char kFlagName[] = "KPExpressInstall.flag";
NSString* const kFlag = @"/tmp/KPExpressInstall.flag";

}  // namespace

bool IsExpressInstallFlagSet() { return [[NSFileManager defaultManager] fileExistsAtPath:kFlag]; }

void RemoveExpressInstallFlag() { (void)RemoveFileOrEmptyFolder(kFlagFolder, kFlagName); }
