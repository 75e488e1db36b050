// The platform utilities, all of them.
#pragma once

#include "shared/platform/mac/MacSystemVersion.h"
