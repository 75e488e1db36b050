#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMVersionXML.h"

namespace {

NSString* const kVersionStart = @"<XML><update version=\"";
NSString* const kVersionEnd = @"\"><description>";
NSString* const kAutoUpdateModeStart = @"autoUpdateMode ";
NSString* const kAutoUpdateModeEnd = @";";
NSString* const kModeWithoutEnd = @"0";
NSString* const kSizeStart = @";size ";
NSString* const kSizeEnd = @";autoUpdateMode";
NSString* const kSizeSeparator = @" ";
NSString* const kMessageStart = @"<meta>message \"";
NSString* const kMessageEnd = @"\";size";

NSRange Find(NSString* marker, NSString* text) {
  return [text rangeOfString:marker options:NSLiteralSearch];
}

// In a nil text every marker is "found" at 0, with length 0.
bool WasFound(NSRange range) { return range.length != 0; }

NSString* TextAfter(NSString* marker, NSString* text) {
  const NSRange found = Find(marker, text);
  return WasFound(found) ? [text substringFromIndex:NSMaxRange(found)] : nil;
}

NSString* TextBefore(NSString* marker, NSString* text) {
  const NSRange found = Find(marker, text);
  return WasFound(found) ? [text substringToIndex:found.location] : nil;
}

NSString* Version(NSString* text) {
  const NSRange before = Find(kVersionStart, text);
  const NSRange after = Find(kVersionEnd, text);
  if (!WasFound(before) || !WasFound(after)) {
    return nil;
  }
  const NSUInteger start = NSMaxRange(before);
  // The first end marker in the whole text counts, even if it is before the version.
  if (after.location <= start) {
    return nil;
  }
  return [text substringWithRange:NSMakeRange(start, after.location - start)];
}

NSString* AutoUpdateMode(NSString* text) {
  NSString* rest = TextAfter(kAutoUpdateModeStart, text);
  if (rest == nil) {
    return nil;
  }
  NSString* mode = TextBefore(kAutoUpdateModeEnd, rest);
  return mode != nil ? mode : kModeWithoutEnd;
}

// Sets the size of `description` if `text` has both numbers, with one space between them.
void ScanDialogSize(NSString* text, KPIMVersionXML& description) {
  NSString* rest = TextAfter(kSizeStart, text);
  if (!WasFound(Find(kSizeEnd, rest))) {
    return;
  }
  NSString* width = TextBefore(kSizeSeparator, rest);
  if (width == nil) {
    return;
  }
  // Only two numbers are used, so the rest of the text is not split.
  NSString* height = TextAfter(kSizeSeparator, rest);
  NSString* onlyHeight = TextBefore(kSizeSeparator, height);
  description.dialogWidth = [width floatValue];
  description.dialogHeight = [(onlyHeight != nil ? onlyHeight : height) floatValue];
  description.hasDialogSize = true;
}

NSString* Message(NSString* text) {
  return TextBefore(kMessageEnd, TextAfter(kMessageStart, text));
}

}  // namespace

KPIMVersionXML ScanVersionXML(NSString* text) {
  KPIMVersionXML description = {};
  description.version = Version(text);
  description.autoUpdateMode = AutoUpdateMode(text);
  description.message = Message(text);
  ScanDialogSize(text, description);
  return description;
}
