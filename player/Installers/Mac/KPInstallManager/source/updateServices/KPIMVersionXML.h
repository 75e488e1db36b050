// Reading the vendor's version description. It is one line, which is searched for fixed markers and
// not parsed as XML:
//
//     <XML><update version="32.0.0.270"><description><meta>message "A new version is available.";
//     size 400 300;autoUpdateMode 1;</meta></description></update></XML>
//
// This example is broken into two lines; a description is not.
#pragma once

#import <Foundation/Foundation.h>

/// The contents of a version description. The strings are autoreleased.
struct KPIMVersionXML {
  /// Nil when it is missing or empty.
  NSString* version;
  /// Nil when it is missing, "0" when only its end is missing.
  NSString* autoUpdateMode;
  /// Nil when it is missing.
  NSString* message;
  /// Whether the description has a size; its width and height in points.
  bool hasDialogSize;
  float dialogWidth;
  float dialogHeight;
};

/// Reads `text`, which may be nil and is not trusted. For every text the time is proportional to
/// its length, and no exception is raised.
KPIMVersionXML ScanVersionXML(NSString* text);
