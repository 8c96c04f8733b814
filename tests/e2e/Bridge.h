#pragma once

#include <filesystem>

/**
 * Where a phone connects to the watch whose accessory link is at `link`: there or, where PARVANE_TEST_BRIDGE names the
 * program, at a bridge that brings its packets over the gateway's road for Bluetooth. That one runs for as long as no
 * other watch is asked for.
 *
 * @throws std::runtime_error if the bridge does not serve
 */
std::filesystem::path PhoneSocket(const std::filesystem::path &link);
