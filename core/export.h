#pragma once

// Symbols of the library are hidden unless marked as part of its interface.
#define ZARNPKG_API __attribute__((visibility("default")))
