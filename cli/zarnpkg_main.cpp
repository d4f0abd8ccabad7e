#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <string>

#include "cli/zarnpkg_cli.h"
#include "platform/log.h"
#include "platform/sysroot.h"

int main(int argc, char** argv) {
    static const std::map<std::string, std::function<int(CliContext&)>> commands = {
        {"host-init", CmdHostInit}, {"list", CmdList},     {"info", CmdInfo}, {"pack", CmdPack},
        {"check", CmdCheck},        {"status", CmdStatus}, {"log", CmdLog},   {"order", CmdOrder},
    };
    CliContext ctx;
    std::string root;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string opt = argv[i];
        if (opt == "--json") {
            ctx.json = true;
        } else if (opt == "-v" || opt == "--verbose") {
            ctx.verbose = true;
        } else if ((opt == "--root" || opt == "--lang") && i + 1 < argc) {
            (opt == "--root" ? root : ctx.lang) = argv[++i];
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
    if (!root.empty()) {
        ZARNPackageCore::SetSystemRoot(root);
    }
    ZARNLogSetVerbose(ctx.verbose);
    ctx.args.assign(argv + i + 1, argv + argc);
    return command->second(ctx);
}
