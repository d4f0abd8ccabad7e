// Lays out what bench/listing.sh measures, in a folder of its own choosing.
//
//   bench_layout registry ROOT COUNT SCRIPTED   a standalone root with COUNT installed packages
//                                               (INFO of about 2.8 KB with icons, a target link,
//                                               `enabled`, each depending on 0-3 of the 50
//                                               before it); the first SCRIPTED have a
//                                               start-stop-status, every third of them running
//   bench_layout dpkg FILE COUNT                a dpkg status file of COUNT packages with the
//                                               same dependency shape
//   bench_layout chain ROOT COUNT               a standalone root with COUNT stopped packages,
//                                               each needing the one before it, whose
//                                               start-stop-status does nothing, with their jobs
//                                               generated as at installation
//
// Nothing is timed here: the script times the commands against these trees.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/files.h"
#include "platform/host_init.h"
#include "platform/jobs.h"
#include "platform/sysroot.h"
#include "service/gen_job_adapter.h"
#include "service/gen_service_cfg.h"
#include "service/jobs.h"

namespace {

void Check(bool ok, const std::string& what) {
    if (!ok) {
        std::fprintf(stderr, "bench_layout: %s failed\n", what.c_str());
        std::exit(1);
    }
}

std::string Name(int i) {
    return "pkg" + std::to_string(i);
}

std::string Version(int i) {
    return std::to_string(1 + i % 7) + "." + std::to_string(i % 13) + "-" +
           std::to_string(1000 + i);
}

// 0-3 of the 50 packages before `i`, picked by a fixed rule so every layout is the same.
std::string Depends(int i, const char* separator, bool dpkg) {
    std::string out;
    const int count = i == 0 ? 0 : (i * 7) % 4;
    for (int k = 0; k < count; ++k) {
        const int dep = i - 1 - (i * 13 + k * 17) % std::min(i, 50);
        if (!out.empty()) {
            out += separator;
        }
        out += Name(dep) + (dpkg ? " (>= 1.0)" : ">=1.0");
    }
    return out;
}

std::string InfoText(int i) {
    const std::string name = Name(i);
    std::string text = "package=\"" + name + "\"\nversion=\"" + Version(i) + "\"\n";
    text += "displayname=\"Package number " + std::to_string(i) + "\"\n";
    text += "description=\"A realistic description of package " + name +
            " that explains what it does, where its settings live and how to reach it.\"\n";
    text += "maintainer=\"Example Software Ltd.\"\nmaintainer_url=\"https://example.com/\"\n";
    text += "arch=\"x86_64 armv8\"\nos_min_ver=\"6.2-25556\"\nadminport=\"" +
            std::to_string(8000 + i % 1000) + "\"\nadminurl=\"/\"\n";
    text += "checksum=\"0123456789abcdef0123456789abcdef\"\nextractsize=\"20480\"\n";
    text += "install_dep_packages=\"" + Depends(i, ":", false) + "\"\n";
    if (i % 97 == 5) {
        text += "install_break_packages=\"" + Name(i - 1) + "<<1.0\"\n";
    }
    text += "ctl_stop=\"yes\"\n";
    text += "package_icon=\"" + std::string(1000, 'A') + "\"\n";
    text += "package_icon_256=\"" + std::string(1200, 'B') + "\"\n";
    return text;
}

constexpr const char* kScript =
    "#!/bin/sh\ncase \"$1\" in\n  status) [ -f \"${0%/*}/../target/running\" ] && exit 0; exit "
    "3;;\nesac\nexit 0\n";

// A fresh standalone root at `root` for the library and the tools it runs; the init tool that
// checks jobs finds it through the environment.
void MakeRoot(const std::string& root) {
    setenv("ZARNPKG_ROOT", root.c_str(), 1);
    ZARNPackageCore::SetSystemRoot(root);
    std::string error;
    Check(ZARNHostInit(error), "host-init " + error);
}

// An installed package `i`: its INFO, its payload folder and the target link to it.
void Install(int i, const std::string& info) {
    const std::string dir = "/var/packages/" + Name(i);
    const std::string target = "/volume1/@appstore/" + Name(i);
    Check(ZARNFSMkdirP(dir + "/scripts", 0, 1, -1, -1, 0755) == 0, "mkdir " + dir);
    Check(ZARNFSMkdirP(target, 0, 1, -1, -1, 0755) == 0, "mkdir " + target);
    Check(ZARNFileWrite(dir + "/INFO", info), "INFO");
    Check(ZARNSymlink("../../../volume1/@appstore/" + Name(i), dir + "/target"), "link");
}

void Registry(const std::string& root, int count, int scripted) {
    MakeRoot(root);
    for (int i = 0; i < count; ++i) {
        Install(i, InfoText(i));
        const std::string dir = "/var/packages/" + Name(i);
        Check(ZARNFileWrite(dir + "/enabled", ""), "enabled");
        if (i < scripted) {
            Check(ZARNFileWrite(dir + "/scripts/start-stop-status", kScript, 0755), "script");
            if (i % 3 == 0) {
                Check(ZARNFileWrite("/volume1/@appstore/" + Name(i) + "/running", ""), "running");
                Check(ZARNJobStateWrite("pkgctl-" + Name(i), 1, 1, ZARN_JOB_PHASE_RUNNING), "job");
            }
        }
    }
}

void Chain(const std::string& root, int count) {
    namespace Service = ZARNPackageTool::Service;
    MakeRoot(root);
    for (int i = 0; i < count; ++i) {
        std::string info = "package=\"" + Name(i) +
                           "\"\nversion=\"1.0\"\nmaintainer=\"bench\"\ndescription=\"bench\"\n";
        if (i > 0) {
            info += "install_dep_packages=\"" + Name(i - 1) + "\"\n";
        }
        Install(i, info);
        Check(ZARNFileWrite("/var/packages/" + Name(i) + "/scripts/start-stop-status",
                            "#!/bin/sh\nexit 0\n", 0755),
              "script");
        Check(Service::GenJobAdapter(Name(i), Json::Value(), true), "job of " + Name(i));
        Check(Service::GenServiceCfg(Name(i), Json::Value(), true), "service of " + Name(i));
    }
}

void Dpkg(const std::string& file, int count) {
    std::ofstream out(file);
    for (int i = 0; i < count; ++i) {
        out << "Package: " << Name(i) << "\nStatus: install ok installed\nPriority: optional\n"
            << "Section: misc\nInstalled-Size: 20480\nMaintainer: Example Software Ltd.\n"
            << "Architecture: amd64\nVersion: " << Version(i) << "\n";
        const std::string deps = Depends(i, ", ", true);
        if (!deps.empty()) {
            out << "Depends: " << deps << "\n";
        }
        out << "Description: package number " << i << "\n A realistic description.\n\n";
    }
    Check(out.good(), "write " + file);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "registry" && argc == 5) {
        Registry(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    } else if (what == "chain" && argc == 4) {
        Chain(argv[2], std::atoi(argv[3]));
    } else if (what == "dpkg" && argc == 4) {
        Dpkg(argv[2], std::atoi(argv[3]));
    } else {
        std::fprintf(
            stderr,
            "usage: bench_layout registry ROOT COUNT SCRIPTED | dpkg FILE COUNT | chain ROOT "
            "COUNT\n");
        return 2;
    }
    return 0;
}
