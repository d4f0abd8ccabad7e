#pragma once

// The OS version this library stands for. The build passes its configured numbers; these are
// what a build without them gets, so that every user of the numbers agrees.
#ifndef ZARN_OS_MAJOR
#define ZARN_OS_MAJOR 6
#endif
#ifndef ZARN_OS_MINOR
#define ZARN_OS_MINOR 2
#endif
#ifndef ZARN_OS_BUILD
#define ZARN_OS_BUILD 25556
#endif
