// Marks the declarations a host may use from libsonorell; everything else is built hidden.
#pragma once

#define SONORELL_EXPORT __attribute__((visibility("default")))
