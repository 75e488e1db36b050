#import "player/ControlPanel/Mac/Source/ExternalInterface/KSConfigFileManager.h"

#import "player/ControlPanel/Mac/Source/ExternalInterface/NSString+SimpleString.h"

@implementation KSConfigFileManager

- (id)initWithConfigFile:(NSString*)path {
  self = [super init];
  if (self == nil) return nil;
  mConfigFileManager = new SASM::ConfigFileManager(SASM::SimpleString([path UTF8String]));
  return self;
}

- (void)dealloc {
  delete mConfigFileManager;
  [super dealloc];
}

- (NSArray*)allKeys {
  SASM::StringVector* keyList = mConfigFileManager->CreateListOfAllKeys();
  // Untested: the list is made with new, and never null.
  if (keyList == nullptr) return nil;

  NSMutableArray* keys = [NSMutableArray arrayWithCapacity:keyList->mCount];
  for (unsigned int index = 0; index < keyList->mCount; ++index) {
    const auto* key = static_cast<SASM::SimpleString const*>(keyList->mElements[index]);
    [keys addObject:[NSString stringWithSimpleString:key]];
  }
  delete keyList;
  return [NSArray arrayWithArray:keys];
}

- (NSString*)valueForKey:(NSString*)key {
  const SASM::SimpleString value =
      mConfigFileManager->ValueForKey(SASM::SimpleString([key UTF8String]));
  return [NSString stringWithSimpleString:&value];
}

- (BOOL)boolValue:(NSString*)string {
  return SASM::SimpleString([string UTF8String]).boolValue();
}

- (void)setValue:(NSString*)value forKey:(NSString*)key {
  char const* valueText = [value UTF8String];
  char const* keyText = [key UTF8String];
  if (valueText == nullptr || keyText == nullptr) return;
  mConfigFileManager->UpdateSetting(SASM::SimpleString(keyText), SASM::SimpleString(valueText));
}

- (void)synchronizeFile {
  mConfigFileManager->UpdateSettingsFile();
}

@end
