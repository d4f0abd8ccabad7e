#pragma once

#include <json/json.h>

#include <ostream>
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

// Prints text for a person, with a newline added where it lacks one. Control characters are
// shown as escapes, so that text from packages can't steer the terminal.
void PrintText(std::ostream& stream, const std::string& text);
// Tells each warning on standard error, escaped, and returns them as a JSON array.
Json::Value PrintWarnings(const std::vector<std::string>& warnings);
// Prints a success: the JSON object (with "success": true added) or the plain text.
int PrintSuccess(const CliContext& ctx, Json::Value object, const std::string& text);
// Prints a failure with its code, message array, the sentence `what` (what failed, in words)
// and the facts of `params`: "error: 0x<code> <message ...>: <sentence>" on standard error, or
// the JSON failure form, with the workers' messages of the action when it has them.
int PrintFailureMessage(const CliContext& ctx, unsigned int code, const Json::Value& message,
                        const std::string& what, const Json::Value& params = Json::Value(),
                        const Json::Value& workerMessages = Json::Value());
// A failure whose message is the key of its code.
int PrintFailureCode(const CliContext& ctx, unsigned int code, const std::string& what,
                     const Json::Value& params = Json::Value());
// A failure of the manager's result, with its map parameters.
int PrintFailure(const CliContext& ctx, const ZARNPackageTool::PackageManager& pm,
                 const std::string& what);
// A usage error: the problem and the usage text on standard error (with --json also the
// failure object on standard output); exit status 2.
int PrintUsage(const CliContext& ctx, const std::string& problem);
// The usage text of the front end.
std::string UsageText();
// Flushes standard output; an output that could not be written turns the status into a
// failure.
int FinishOutput(const CliContext& ctx, int status);
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
int CmdStart(CliContext& ctx);
int CmdStop(CliContext& ctx);
int CmdRestart(CliContext& ctx);
int CmdOrder(CliContext& ctx);
int CmdWorkers(CliContext& ctx);
int CmdInstall(CliContext& ctx);
int CmdUninstall(CliContext& ctx);
