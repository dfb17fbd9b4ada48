/// Marks the declarations a host may use from libsonorell; everything else is built hidden.
/// @file
#pragma once

/// Gives a class or function default visibility, so that libsonorell.so exports it. The library
/// is built with -fvisibility=hidden: whatever lacks this mark stays internal, and the exported
/// surface changes only when a mark does (scripts/check_exports.sh compares it with the list
/// kept in scripts/exported_symbols.txt).
#define SONORELL_EXPORT __attribute__((visibility("default")))
