// Includes the headers of all platform utilities.
#pragma once

#import "shared/platform/mac/ElevatedLaunch.h"
#import "shared/platform/mac/LanguageMapping.h"
#include "shared/platform/mac/MacSystemVersion.h"
#include "shared/platform/mac/ProcessLookup.h"
#include "shared/platform/mac/TickCount.h"
