#include "VersionRemark.h"

#include <nlohmann/json.hpp>

namespace ParvaneWatch {

std::string VersionRemark(const nlohmann::json &report)
{
    std::string version = "of a version before 0.2.0";
    if (const auto service = report.find("service"); service != report.end()) {
        if (const auto told = service->find("version");
            told != service->end() && told->is_string()) {
            version = told->get<std::string>();
        }
    }
    if (version == PARVANE_WATCH_VERSION) {
        return "";
    }
    return "parvane-watch " PARVANE_WATCH_VERSION " talks to parvane " + version +
           ": one may lack what the other has; installed together they are of one version";
}

} // namespace ParvaneWatch
