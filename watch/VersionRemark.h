#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace ParvaneWatch {

/**
 * What to say about a service of another version than this program; empty when there is nothing to say.
 *
 * @param report  what has the member "service" in a reply (docs/control.md): the status or the
 *                configuration; one without a version is of a service before 0.2.0
 */
std::string VersionRemark(const nlohmann::json &report);

} // namespace ParvaneWatch
