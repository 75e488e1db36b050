// Files of user defaults that belong to a user whom the process need not trust.
#pragma once

#import <Foundation/Foundation.h>

/// The dictionary in the file of user defaults at `path`, autoreleased. nil when the file is
/// missing, cannot be read, is broken, or is not in one of these forms:
///
/// - XML as property list writers make it: the UTF-8 declaration, at most a document type without
///   declarations of its own, and tags that have no attributes but the root's version. Neither
///   comments nor CDATA.
/// - OpenStep text: a dictionary in braces. Comments may come before it.
///
/// A binary property list is not read, nor a file longer than 64 KiB, nor one that nests deeper
/// than GNUstep's parsers, which do not guard themselves, bear. Nothing but a regular file is
/// waited for. Never raises.
NSDictionary* DictionaryOfDefaultsFile(NSString* path);
