#pragma once

// Symbols of the host library are hidden unless marked as one of its interfaces.
#define ZARNHOST_API __attribute__((visibility("default")))
