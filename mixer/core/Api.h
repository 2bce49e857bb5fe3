#pragma once

// Marks the library's public API; everything else is hidden.
#define MIXER_API __attribute__((visibility("default")))
