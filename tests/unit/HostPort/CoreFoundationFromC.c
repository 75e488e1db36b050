/* The port's headers without Objective-C. */
#include <CoreFoundation/CoreFoundation.h>
#include <SystemConfiguration/SystemConfiguration.h>

int IsEqualInC(CFTypeRef left, CFTypeRef right);

int IsEqualInC(CFTypeRef left, CFTypeRef right) { return CFEqual(left, right); }
