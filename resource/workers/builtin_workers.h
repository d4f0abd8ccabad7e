#pragma once

#include <new>

#include "pkgutils/worker.h"
#include "resource/timing.h"

namespace ZARNPackageTool {
namespace Resource {

typedef ZARN::PkgUtils::IWorker* (*WorkerFactory)();

// One row of the built-in table: the worker type (the key in conf/resource), the moments at
// which it runs, and the factory of its class.
struct BuiltinWorkerRow {
    const char* type;
    INTERVAL interval;
    WorkerFactory factory;
};

// The built-in workers in the order in which they run forward, ended by a row with a null type.
// A type may stand in several rows: each runs with its own class.
extern const BuiltinWorkerRow g_BuiltinWorkers[];

// The factory of a row: a null result means out of memory.
template <typename Worker>
ZARN::PkgUtils::IWorker* MakeWorker() {
    return new (std::nothrow) Worker();
}

}  // namespace Resource
}  // namespace ZARNPackageTool
