// Anchor of the shared library libsonorell: the engine and platform archives are linked into it
// whole, and only declarations marked SONORELL_EXPORT stay visible to a host.
#include "sonorell/version.h"
