// Foundation, with the names of macOS that GNUstep Base spells differently.
#pragma once

#include_next <Foundation/Foundation.h>

/// The folder of the system's core services; GNUstep has an s more in the name.
enum { NSCoreServiceDirectory = NSCoreServicesDirectory };
