#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "core/packagemanager.h"

// What every command of the front end gets: the global options and its own arguments.
struct CliContext {
    bool json = false;
    bool verbose = false;
    std::string lang;
    std::vector<std::string> args;

    const char* language() const { return lang.empty() ? nullptr : lang.c_str(); }
};

// Exit statuses of the front end.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// Prints a success: the JSON object (with "success": true added) or the plain text.
int PrintSuccess(const CliContext& ctx, Json::Value object, const std::string& text);
// Prints a failure of the manager's result: "error: 0x<code> <key> ..." on standard error, or
// the JSON failure form. `what` says in words what failed.
int PrintFailure(const CliContext& ctx, const ZARNPackageTool::PackageManager& pm,
                 const std::string& what, const std::string& packageName = "");
// A failure that comes with its own code and message array.
int PrintFailureMessage(const CliContext& ctx, unsigned int code, const Json::Value& message,
                        const std::string& what, const Json::Value& params = Json::Value());
// A usage error: the problem and the usage text on standard error (with --json also the
// failure object on standard output); exit status 2.
int PrintUsage(const CliContext& ctx, const std::string& problem);
const char* UsageText();
// What to tell a person when PackageManager::init fails.
std::string RegistryFailureText();
// Words for a value of getPkgStatus.
const char* StatusText(int status);

// Commands.
int CmdHostInit(CliContext& ctx);
int CmdList(CliContext& ctx);
int CmdInfo(CliContext& ctx);
int CmdPack(CliContext& ctx);
int CmdCheck(CliContext& ctx);
int CmdStatus(CliContext& ctx);
int CmdLog(CliContext& ctx);
int CmdOrder(CliContext& ctx);
