#include "support/service_packages.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "support/cli_runner.h"

namespace {

std::string PidPath(const std::string& name) {
    return "/volume1/@appstore/" + name + "/pid";
}

}  // namespace

void ServicePackagesTest::TearDown() {
    // No process of a test outlives it, whatever state the test left.
    for (const auto& name : packages_) {
        const std::string pid = readFile(PidPath(name));
        if (!pid.empty()) {
            kill(std::stoi(pid), SIGKILL);
        }
    }
    JobRootTest::TearDown();
}

std::string ServicePackagesTest::tracePath() const {
    return phys("/trace");
}

void ServicePackagesTest::addServicePackage(const std::string& name, const std::string& needs,
                                            const std::string& info, const std::string& cases) {
    std::string lines = "displayname=\"Pkg " + name + "\"\n" + info;
    if (!needs.empty()) {
        lines += "install_dep_packages=\"" + needs + "\"\n";
    }
    ASSERT_NO_FATAL_FAILURE(addPackage(name, lines));
    const std::string pid = phys(PidPath(name));
    writeFile(
        "/var/packages/" + name + "/scripts/start-stop-status",
        "#!/bin/sh\n"
        "echo \"$1 " +
            name + "\" >>'" + tracePath() +
            "'\n"
            "PID='" +
            pid +
            "'\n"
            "[ -e \"$PID-fail-$1\" ] && exit 7\n"
            "alive() { [ -s \"$PID\" ] && kill -0 \"$(cat \"$PID\")\" 2>/dev/null; }\n"
            "case \"$1\" in\n" +
            cases +
            "\nstart) alive || { sleep 600 </dev/null >/dev/null 2>&1 & echo $! >\"$PID\"; } ;;\n"
            "stop) alive && kill \"$(cat \"$PID\")\"; rm -f \"$PID\" ;;\n"
            "status) alive || exit 3 ;;\n"
            "esac\n"
            "exit 0\n",
        0755);
    ASSERT_NO_FATAL_FAILURE(generateJob(name, false));
    packages_.push_back(name);
}

void ServicePackagesTest::failAction(const std::string& name, const std::string& action) {
    writeFile(PidPath(name) + "-fail-" + action, "");
}

void ServicePackagesTest::killProcess(const std::string& name) {
    const pid_t pid = std::stoi(readFile(PidPath(name)));
    ASSERT_EQ(0, kill(pid, SIGKILL)) << name;
    for (int i = 0; i < 500 && kill(pid, 0) == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_NE(0, kill(pid, 0)) << name << " was not reaped";
}

bool ServicePackagesTest::processAlive(const std::string& name) const {
    const std::string pid = readFile(PidPath(name));
    return !pid.empty() && kill(std::stoi(pid), 0) == 0;
}

std::vector<std::string> ServicePackagesTest::trace(const std::vector<std::string>& actions) const {
    std::vector<std::string> out;
    for (const auto& line : Lines(readFile("/trace"))) {
        const std::string action = line.substr(0, line.find(' '));
        if (actions.empty() || std::find(actions.begin(), actions.end(), action) != actions.end()) {
            out.push_back(line);
        }
    }
    return out;
}

std::vector<std::string> ServicePackagesTest::Calls(const std::string& action,
                                                    const std::vector<std::string>& packages) {
    std::vector<std::string> out;
    for (const auto& p : packages) {
        out.push_back(action + " " + p);
    }
    return out;
}
