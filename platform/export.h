#pragma once

// Symbols of the library are hidden unless marked as part of its interface.
#define ZARNPKG_API __attribute__((visibility("default")))
// The host interfaces, exported by the standalone host library.
#define ZARNHOST_API __attribute__((visibility("default")))
