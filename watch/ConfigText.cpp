#include "ConfigText.h"

#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>

#include "Printable.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;
using Parvane::Printable;

/** A member of an object that is a text; empty when it is not there or no text. */
std::string Text(const json &object, const char *key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

json Member(const json &object, const char *key)
{
    const auto found = object.find(key);
    return found != object.end() ? *found : json();
}

/** A setting as the file would have it; the elements of a list with ';' between them. */
std::string ValueText(const json &value)
{
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_null()) {
        return "(too long to be told)";
    }
    if (!value.is_array()) {
        return value.dump(-1, ' ', false, json::error_handler_t::replace);
    }
    std::string text;
    for (const json &element : value) {
        text += (text.empty() ? "" : ";") + ValueText(element);
    }
    return text;
}

std::string Padded(std::string text, std::size_t width)
{
    text.resize(std::max(text.size() + 2, width), ' ');
    return text;
}

std::string Line(const std::string &label, const std::string &text)
{
    constexpr std::size_t kLabelWidth = 12;
    return Padded(label, kLabelWidth) + Printable(text);
}

} // namespace

std::vector<std::string> ConfigText(const json &config)
{
    constexpr std::size_t kWidth = 40;
    const json file = Member(config, "file");
    const std::string path = Text(file, "path");
    const bool isRead = Member(file, "read") == true;
    std::vector<std::string> lines = {
        Line("service", "version " + Text(Member(config, "service"), "version")),
        Line("file", path + (isRead ? "" : ", which is not there")),
        Line("link", Text(config, "link_socket")), Line("control", Text(config, "control_socket"))};
    std::string section;
    for (const json &value : Member(config, "values")) {
        if (const std::string name = Text(value, "section"); name != section) {
            section = name;
            lines.emplace_back();
            lines.push_back(Printable("[" + section + "]"));
        }
        std::string from = Text(value, "from");
        constexpr const char *kLine = "line ";
        if (from.starts_with(kLine)) {
            from.replace(0, std::char_traits<char>::length(kLine), path + ":");
        }
        lines.push_back(
            Padded(Printable(Text(value, "key") + "=" + ValueText(Member(value, "value"))),
                   kWidth) +
            Printable(from));
    }
    return lines;
}

std::vector<std::string> LogText(const json &log)
{
    const std::string level = Text(log, "level");
    const std::string tags = Text(log, "tags");
    return {Line("level", level == "auto" ? "auto: every line, on a terminal from warning on"
                                          : level + (level == "verbose" ? ": every line" : "")),
            Line("tags", tags.empty() ? "any" : tags + ", and errors of any tag")};
}

} // namespace ParvaneWatch
