#import "player/ControlPanel/Mac/Source/ExternalInterface/NSString+SimpleString.h"

@implementation NSString (SimpleString)

+ (NSString*)stringWithSimpleString:(const SASM::SimpleString*)string {
  if (string == nullptr) {
    return @"";
  }
  NSString* text = [NSString stringWithUTF8String:string->mString];
  if (text != nil) {
    return text;
  }
  return [NSString stringWithCString:string->mString encoding:NSISOLatin1StringEncoding];
}

@end
