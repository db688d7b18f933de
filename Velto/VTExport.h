#pragma once

// Marks what the shared library shows to a host; everything else in it is hidden.
#define VT_EXPORT __attribute__((visibility("default")))
