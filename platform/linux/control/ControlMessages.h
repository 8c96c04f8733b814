#pragma once

#include <string>

namespace ParvanePlatform {

/** The version of the control protocol (docs/control.md). */
constexpr int kControlVersion = 1;

/** Why a request is refused; in a reply by the names of docs/control.md. */
enum class ControlError {
    BadMessage,
    UnsupportedVersion,
    UnknownRequest,
    BadValue,
    NotManual,
    Busy,
    Recording,
    TooSlow,
    Failed
};

// The texts of messages to a client. Bytes that are no UTF-8 become U+FFFD.

std::string DoneMessage();
std::string ErrorMessage(ControlError error, const std::string &text);

/** The lines of a recording before its first row. */
std::string HeaderMessage(const std::string &text);
std::string RowMessage(const std::string &text);

/** A reading that has no row, and why. */
std::string LeftOutMessage(const std::string &reason);

/** The end of a recording that is whole, because the service ends. */
std::string EndMessage();

} // namespace ParvanePlatform
