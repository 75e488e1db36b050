#import <CoreFoundation/CoreFoundation.h>
#import <Foundation/Foundation.h>

void CFRelease(CFTypeRef object) { [(id)object release]; }

Boolean CFEqual(CFTypeRef left, CFTypeRef right) { return [(id)left isEqual:(id)right] ? 1 : 0; }
