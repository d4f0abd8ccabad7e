#pragma once

#include <string>
#include <vector>

#include "support/job_root.h"

// A root with installed packages whose start-stop-status really starts a background process on
// "start" and kills it on "stop". Every call of a script is traced as "<action> <package>" in
// one file, in the order in which the scripts ran.
class ServicePackagesTest : public JobRootTest {
protected:
    void TearDown() override;

    // Lays out a stopped package: INFO with the display name "Pkg <name>", the dependencies
    // `needs` (install_dep_packages) and the lines of `info`, its script and its job. `cases` are
    // more branches of the script's `case "$1" in`, e.g. "prestart) exit 1 ;;".
    void addServicePackage(const std::string& name, const std::string& needs = "",
                           const std::string& info = "", const std::string& cases = "");
    // Makes the script's `action` fail (exit 7) from now on.
    void failAction(const std::string& name, const std::string& action);
    // Kills the package's background process behind the engine's back and waits until it is
    // gone, reaped too, so that the package's status script sees it down.
    void killProcess(const std::string& name);
    // Whether the package's background process is alive.
    bool processAlive(const std::string& name) const;
    // The traced script calls whose action is one of `actions` (all when empty).
    std::vector<std::string> trace(const std::vector<std::string>& actions = {}) const;
    // "<action> <package>" for each package of a list, in order.
    static std::vector<std::string> Calls(const std::string& action,
                                          const std::vector<std::string>& packages);
    // The physical path of the trace, for scripts that write into it.
    std::string tracePath() const;

private:
    std::vector<std::string> packages_;
};
