// The language of the user at the console.
#pragma once

/// Returns the code of the language that the console user prefers, as ObtainMacOSLanguage() defines
/// the codes; "xu" when no user is logged in, or when that user's preferences cannot be read. As
/// root, the call briefly takes on that user's effective user id. The text is static.
const char* ConsoleUserLanguage();
