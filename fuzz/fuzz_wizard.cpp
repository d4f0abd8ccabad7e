// The wizard file reader and the default answers pulled out of what it read.

#include "fuzz_support.h"
#include "package/archive.h"
#include "platform/json.h"

using namespace ZARNPackageTool;

namespace {

const char* const kFile = "/var/packages/fuzz/WIZARD_UIFILES/install_uifile";

// An array of steps, each an object whose "items" is an array.
bool IsWizard(const Json::Value& value) {
    if (!value.isArray()) {
        return false;
    }
    for (const auto& step : value) {
        if (!step.isObject() || !step["items"].isArray()) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzWriteFile(kFile, FuzzInput(data, size));
    Json::Value wizard;
    const bool ok = PMReadUIFileContent(kFile, wizard);
    FUZZ_CHECK(ok == IsWizard(wizard));

    Json::Value defaults;
    getUIDefaultValues(wizard, defaults);
    FUZZ_CHECK(defaults.isNull() || defaults.isObject());
    for (const auto& name : defaults.getMemberNames()) {
        FUZZ_CHECK(defaults[name].isString());
    }
    if (ok) {
        // The wizard as the library writes it reads back as the same wizard.
        FuzzWriteFile(kFile, Json::toCompactString(wizard));
        Json::Value again;
        FUZZ_CHECK(PMReadUIFileContent(kFile, again) && again == wizard);
    }
    return 0;
}
