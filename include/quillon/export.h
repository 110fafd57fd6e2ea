// Visibility of the library's public symbols. Everything else is hidden.
#pragma once

#define QUILLON_API extern "C" __attribute__((visibility("default")))
