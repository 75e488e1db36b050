// Reads the vendor's version description. It is one line, searched for fixed markers and not
// parsed:
//
//     <XML><update version="32.0.0.270"><description><meta>message "A new version is available.";
//     size 400 300;autoUpdateMode 1;</meta></description></update></XML>
//
// with nothing where the line is broken here.
#pragma once

#import <Foundation/Foundation.h>

/// What a version description says. The strings are autoreleased.
struct KPIMVersionXML {
  /// Nil when it is not there or empty.
  NSString* version;
  /// Nil when it is not there, "0" when its end is missing.
  NSString* autoUpdateMode;
  /// Nil when it is not there.
  NSString* message;
  /// The size in points, when there is one.
  bool hasDialogSize;
  float dialogWidth;
  float dialogHeight;
};

/// Reads `text`, which may be nil and is not trusted: any text takes time in proportion to its
/// length, and none raises.
KPIMVersionXML ScanVersionXML(NSString* text);
