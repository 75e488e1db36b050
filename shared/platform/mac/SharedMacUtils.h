// The platform utilities, all of them.
#pragma once

#import "shared/platform/mac/LanguageMapping.h"
#include "shared/platform/mac/MacSystemVersion.h"
