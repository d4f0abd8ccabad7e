#include "core/uifile_names.h"

namespace ZARNPackageTool {

std::vector<std::string> PMSUIFileCandidates(PKG_INSTALLATION_TYPE type, const char* lang) {
    std::vector<std::string> out;
    auto base = UIFileMapping.find(type);
    if (base == UIFileMapping.end()) {
        return out;
    }
    const std::string stem = "WIZARD_UIFILES/" + base->second;
    const bool withLang = lang != nullptr && lang[0] != '\0';
    if (withLang) {
        out.push_back(stem + "_" + lang + ".sh");
    }
    out.push_back(stem + ".sh");
    if (withLang) {
        out.push_back(stem + "_" + lang);
    }
    out.push_back(stem);
    return out;
}

}  // namespace ZARNPackageTool
