#import "player/ControlPanel/Mac/Source/ExternalInterface/KSConfigFileManager.h"

#import "player/ControlPanel/Mac/Source/ExternalInterface/NSString+SimpleString.h"

namespace {

// Returns `string` in UTF-8, owned by the autorelease pool. Null for nil and for half of a
// surrogate pair, for which -UTF8String may raise.
const char* UTF8Text(NSString* string) {
  return [string canBeConvertedToEncoding:NSUTF8StringEncoding] ? [string UTF8String] : nullptr;
}

}  // namespace

@implementation KSConfigFileManager

- (id)initWithConfigFile:(NSString*)path {
  self = [super init];
  if (self == nil) {
    return nil;
  }
  mConfigFileManager = new SASM::ConfigFileManager(SASM::SimpleString(UTF8Text(path)));
  return self;
}

- (void)dealloc {
  delete mConfigFileManager;
  [super dealloc];
}

- (NSArray*)allKeys {
  SASM::StringVector* keyList = mConfigFileManager->CreateListOfAllKeys();
  // Untested: the list is made with new, and never null.
  if (keyList == nullptr) {
    return nil;
  }

  NSMutableArray* keys = [NSMutableArray arrayWithCapacity:keyList->mCount];
  for (unsigned int index = 0; index < keyList->mCount; ++index) {
    const auto* key = static_cast<const SASM::SimpleString*>(keyList->mElements[index]);
    [keys addObject:[NSString stringWithSimpleString:key]];
  }
  delete keyList;
  return [NSArray arrayWithArray:keys];
}

- (NSString*)valueForKey:(NSString*)key {
  const char* keyText = UTF8Text(key);
  if (keyText == nullptr) {
    return @"";
  }
  const SASM::SimpleString value = mConfigFileManager->ValueForKey(SASM::SimpleString(keyText));
  return [NSString stringWithSimpleString:&value];
}

- (BOOL)boolValue:(NSString*)string {
  return SASM::SimpleString(UTF8Text(string)).boolValue();
}

- (void)setValue:(NSString*)value forKey:(NSString*)key {
  const char* valueText = UTF8Text(value);
  const char* keyText = UTF8Text(key);
  if (valueText == nullptr || keyText == nullptr) {
    return;
  }
  mConfigFileManager->UpdateSetting(SASM::SimpleString(keyText), SASM::SimpleString(valueText));
}

- (void)synchronizeFile {
  mConfigFileManager->UpdateSettingsFile();
}

@end
