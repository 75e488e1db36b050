// The language of the user at the console.
#pragma once

/// Returns the code of the language that the console user prefers, as ObtainMacOSLanguage() defines
/// the codes; "xu" when no user is logged in, when that user's preferences cannot be read, and for
/// an unsupported language. As root, the call briefly takes on that user's effective user id; any
/// other process reads the preferences of its own user. They are read once per process: later calls
/// return the same code for every user. The text is static.
const char* ConsoleUserLanguage();
