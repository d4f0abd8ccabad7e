#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include "cli/zarnpkg_cli.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/sysroot.h"

namespace {

struct Command {
    const char* name;
    int (*run)(CliContext&);
    const char*
        synopsis;  // the arguments after the name; lines after the first are its other forms
    const char* summary;
};

const Command kCommands[] = {
    {"host-init", CmdHostInit, "[--volumes N]",
     "make or complete a standalone root, its folder too"},
    {"pack", CmdPack, "DIR -o FILE", "build a QAR file from a package source folder"},
    {"check", CmdCheck, "FILE", "the full file check of a QAR file"},
    {"info", CmdInfo, "NAME | FILE.qar | --file PATH",
     "the record of an installed package or of a package\n"
     "file (a word with a / or ending in .qar or .spk)"},
    {"list", CmdList, "", "installed packages with version and status"},
    {"status", CmdStatus, "NAME", "status and rough status of an installed package"},
    {"start", CmdStart, "NAME", "start a package; it does not start the packages it needs"},
    {"stop", CmdStop, "NAME", "stop a package and the running packages that need it"},
    {"restart", CmdRestart, "NAME", "stop a package with its running dependants, start them again"},
    {"log", CmdLog, "NAME", "the package's log text"},
    {"order", CmdOrder, "[NAME]", "stop order of all packages, or of NAME's dependants"},
    {"install", CmdInstall,
     "FILE [--volume V] [--start|--no-start|--keep-running] [--wizard JSON|@FILE] [--user U] "
     "[--verify-signature] [--ignore-deps]",
     "install, upgrade or repair a package from a QAR file"},
    {"uninstall", CmdUninstall, "NAME [--force] [--wizard JSON|@FILE]", "remove a package"},
    {"workers", CmdWorkers, "[NAME]",
     "resource workers per moment with their origin, or those\n"
     "that NAME's conf/resource asks for"},
};

constexpr const char* kSynopsis = "zarnpkg [--root DIR] [--lang LANG] [--json] [-v] ";

const Command* FindCommand(const std::string& name) {
    for (const Command& command : kCommands) {
        if (name == command.name) {
            return &command;
        }
    }
    return nullptr;
}

bool IsGlobalOption(const std::string& arg) {
    return arg == "--json" || arg == "-v" || arg == "--verbose" || arg == "--root" ||
           arg == "--lang" || arg.rfind("--root=", 0) == 0 || arg.rfind("--lang=", 0) == 0;
}

bool IsHelp(const std::string& arg) {
    return arg == "-h" || arg == "--help";
}

std::string CommandUsage(const Command& command) {
    return std::string("usage: ") + kSynopsis + command.name + " " + command.synopsis + "\n" +
           command.summary + "\n";
}

// Help and version are successes: text, or with --json one object that carries it.
int PrintInformation(const CliContext& ctx, const char* member, const std::string& text) {
    Json::Value out(Json::objectValue);
    out[member] = text;
    return PrintSuccess(ctx, out, text);
}

int Run(CliContext& ctx, int argc, char** argv) {
    // A caller that asked for JSON gets it also when the command line itself is wrong, however
    // early the mistake comes.
    for (int k = 1; k < argc; ++k) {
        ctx.json = ctx.json || std::strcmp(argv[k], "--json") == 0;
    }
    std::string root;
    bool rootGiven = false;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        std::string opt = argv[i];
        std::string value;
        bool hasValue = false;
        const size_t eq = opt.find('=');
        if (opt.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = opt.substr(eq + 1);
            opt.erase(eq);
            hasValue = true;
        }
        if (opt == "--root" || opt == "--lang") {
            if (!hasValue && i + 1 < argc) {
                value = argv[++i];
                hasValue = true;
            }
            if (!hasValue || value.empty()) {
                return PrintUsage(ctx, opt == "--root" ? "--root needs the folder of a system tree"
                                                       : "--lang needs a language code, e.g. enu");
            }
            if (opt == "--root") {
                root = value;
                rootGiven = true;
            } else {
                ctx.lang = value;
            }
        } else if (hasValue) {
            return PrintUsage(ctx, opt + " takes no value");
        } else if (opt == "--json") {
            ctx.json = true;
        } else if (opt == "-v" || opt == "--verbose") {
            ctx.verbose = true;
        } else if (IsHelp(opt)) {
            return PrintInformation(ctx, "usage", UsageText());
        } else if (opt == "--version") {
            return PrintInformation(ctx, "version", "zarnpkg " ZARNPKG_VERSION);
        } else {
            return PrintUsage(ctx, "unknown option " + opt);
        }
    }
    if (i >= argc) {
        return PrintUsage(ctx, "no command given");
    }
    const Command* command = FindCommand(argv[i]);
    if (command == nullptr) {
        return PrintUsage(ctx, std::string("unknown command ") + argv[i]);
    }
    ctx.args.assign(argv + i + 1, argv + argc);
    for (const auto& arg : ctx.args) {
        if (IsHelp(arg)) {
            return PrintInformation(ctx, "usage", CommandUsage(*command));
        }
    }
    for (const auto& arg : ctx.args) {
        if (IsGlobalOption(arg)) {
            const std::string opt = arg.substr(0, arg.find('='));
            return PrintUsage(ctx, opt + " goes before the command: zarnpkg " + opt + " ... " +
                                       command->name + " ...");
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
        const int rc = command->run(ctx);
        return ZARNStopSignal() != 0 ? 128 + ZARNStopSignal() : rc;
    } catch (const std::exception& e) {
        // The library must not throw; if it ever does, the caller still gets one answer.
        ZLOGERR("Unexpected failure of %s: %s", command->name, e.what());
        return PrintFailureCode(ctx, ZARNPackageTool::PKG_ERR_SYSTEM,
                                std::string(command->name) + " failed unexpectedly (" + e.what() +
                                    "); run it again with -v and report the log");
    }
}

}  // namespace

std::string UsageText() {
    std::string text = std::string("usage: ") + kSynopsis + "COMMAND [ARGS]\ncommands:\n";
    for (const Command& command : kCommands) {
        std::string line = std::string("  ") + command.name + " " + command.synopsis;
        line.resize(std::max<size_t>(line.size() + 1, 38), ' ');
        // Continuation lines of a summary line up under its first.
        std::string summary = command.summary;
        for (size_t at = summary.find('\n'); at != std::string::npos;
             at = summary.find('\n', at + 1)) {
            summary.insert(at + 1, std::string(38, ' '));
        }
        text += line + summary + "\n";
    }
    text +=
        "  COMMAND --help                      the usage of one command\n"
        "options:\n"
        "  --root DIR, --root=DIR  work on the system tree in DIR instead of /\n"
        "  --lang LANG             language of display names and descriptions\n"
        "  --json                  print one JSON object on standard output\n"
        "  -v                      copy the library's log lines to standard error\n"
        "  --version               the version of zarnpkg\n"
        "  -h, --help              this text\n"
        "environment:\n"
        "  ZARNPKG_ROOT      the system root when --root is not given (default /)\n"
        "  ZARNPKG_LOG_FILE  a file that gets a copy of every log line of the library\n"
        "exit status:\n"
        "  0  success\n"
        "  1  the operation failed: \"error: 0x<code> <message key>: <reason>\" on standard "
        "error,\n"
        "     or with --json {\"success\": false, \"code\": ..., \"error\": ...} on standard "
        "output\n"
        "  2  the command line is wrong\n";
    return text;
}

int main(int argc, char** argv) {
    CliContext ctx;
    const int status = Run(ctx, argc, argv);
    return FinishOutput(ctx, status);
}
