#pragma once

namespace ZARNPackageTool {
namespace Resource {

// The moments of the resource framework. A TIMING holds one bit, an INTERVAL (the moments at
// which a worker runs) any number of them; Acquire runs at the low four, Release at the high.
enum TIMING : unsigned int {
    TIMING_PREINST = 0x01,
    TIMING_POSTINST = 0x02,
    TIMING_ENABLE = 0x04,
    TIMING_STARTUP = 0x08,
    TIMING_PREUNINST = 0x10,
    TIMING_POSTUNINST = 0x20,
    TIMING_DISABLE = 0x40,
    TIMING_HALT = 0x80,
};
typedef unsigned int INTERVAL;

}  // namespace Resource
}  // namespace ZARNPackageTool
