#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <string>

#include "cli/zarnpkg_cli.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/sysroot.h"

namespace {

bool IsGlobalOption(const std::string& arg) {
    return arg == "--json" || arg == "-v" || arg == "--verbose" || arg == "--root" ||
           arg == "--lang";
}

}  // namespace

int main(int argc, char** argv) {
    static const std::map<std::string, std::function<int(CliContext&)>> commands = {
        {"host-init", CmdHostInit}, {"list", CmdList},     {"info", CmdInfo}, {"pack", CmdPack},
        {"check", CmdCheck},        {"status", CmdStatus}, {"log", CmdLog},   {"order", CmdOrder},
    };
    CliContext ctx;
    // A caller that asked for JSON gets it also when the command line itself is wrong, however
    // early the mistake comes.
    for (int k = 1; k < argc; ++k) {
        ctx.json = ctx.json || std::strcmp(argv[k], "--json") == 0;
    }
    std::string root;
    bool rootGiven = false;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string opt = argv[i];
        if (opt == "--json") {
            ctx.json = true;
        } else if (opt == "-v" || opt == "--verbose") {
            ctx.verbose = true;
        } else if (opt == "--root" || opt == "--lang") {
            if (i + 1 >= argc || argv[i + 1][0] == '\0') {
                return PrintUsage(ctx, opt == "--root" ? "--root needs the folder of a system tree"
                                                       : "--lang needs a language code, e.g. enu");
            }
            if (opt == "--root") {
                root = argv[++i];
                rootGiven = true;
            } else {
                ctx.lang = argv[++i];
            }
        } else if (opt == "-h" || opt == "--help") {
            std::cout << UsageText();
            return kExitOk;
        } else {
            return PrintUsage(ctx, "unknown option " + opt);
        }
    }
    if (i >= argc) {
        return PrintUsage(ctx, "no command given");
    }
    auto command = commands.find(argv[i]);
    if (command == commands.end()) {
        return PrintUsage(ctx, std::string("unknown command ") + argv[i]);
    }
    ctx.args.assign(argv + i + 1, argv + argc);
    for (const auto& arg : ctx.args) {
        if (IsGlobalOption(arg)) {
            return PrintUsage(ctx, arg + " goes before the command: zarnpkg " + arg + " ... " +
                                       command->first + " ...");
        }
    }
    ZARNLogSetVerbose(ctx.verbose);
    if (rootGiven) {
        ZARNPackageCore::SetSystemRoot(root);
    }
    // SIGINT and SIGTERM only set a flag: the command stops its child, cleans up on its way
    // out, and the exit status says which signal stopped it.
    ZARNInstallStopHandler();
    try {
        const int rc = command->second(ctx);
        return ZARNStopSignal() != 0 ? 128 + ZARNStopSignal() : rc;
    } catch (const std::exception& e) {
        // The library must not throw; if it ever does, the caller still gets one answer.
        ZLOGERR("Unexpected failure of %s: %s", command->first.c_str(), e.what());
        Json::Value message(Json::arrayValue);
        message.append(ZARNPackageTool::PKG_MSG_DEFAULT);
        return PrintFailureMessage(ctx, ZARNPackageTool::PKG_ERR_SYSTEM, message,
                                   command->first + " failed unexpectedly (" + e.what() +
                                       "); run it again with -v and report the log");
    }
}
