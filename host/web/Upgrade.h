#pragma once

#include <optional>
#include <string>

#include "Error.h"
#include "FrameReader.h"
#include "WebTarget.h"

namespace ParvaneHost {

/** A key of a new request, which the answer to it proves to have seen. */
std::string MakeKey();

/** The request that makes a link of a connection. */
std::string MakeUpgradeRequest(const WebTarget &target, const std::string &key);

/**
 * Reads the answer, with the empty line that ends it.
 *
 * @return why there is no link; nothing when the connection is one now
 */
std::optional<LinkError> JudgeAnswer(const std::string &head, const std::string &key,
                                     const WebTarget &target);

/** What a close code of the gateway says. @param wasOpen  whether the watch had taken the phone */
LinkError ErrorOfCode(Parvane::CloseCode code, bool wasOpen, const WebTarget &target);

} // namespace ParvaneHost
