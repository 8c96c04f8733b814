#include "MonitorText.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "StatusText.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;
using Lines = std::vector<std::string>;

constexpr std::size_t kLabel = 12;

/** `text` in `width` columns, at least one of them empty. */
std::string Cell(const std::string &text, std::size_t width)
{
    std::string cell = Clipped(text, width - 1);
    // Only ASCII is put into cells, but for what a service may have made up.
    return cell + std::string(width - std::min(width, cell.size()), ' ');
}

std::string Label(const json &item)
{
    std::string name = Plain(item);
    std::replace(name.begin(), name.end(), '_', ' ');
    return name;
}

std::int64_t Ms(const json &value)
{
    return value.is_number_integer() ? value.get<std::int64_t>() : 0;
}

std::string Since(const json &object)
{
    return " since " + TimeOfDay(At(object, "since")) + " (" +
           LengthText(Ms(At(object, "for_ms"))) + ")";
}

/** Who keeps an item on, and since when. */
std::string KeepersText(const json &item)
{
    std::string text;
    const json &subscription = At(item, "subscription");
    if (subscription.is_object()) {
        text = "on" + Since(subscription) + " by request " + Plain(At(subscription, "request_id"));
    }
    for (const json &keeper : At(item, "kept_by")) {
        text += (text.empty() ? "on" : ", on") + Since(keeper) + " by process " +
                Plain(At(keeper, "pid")) + ", which records";
    }
    return text.empty() ? "off" : text;
}

std::string HostText(const json &host)
{
    return host.is_object() ? "process " + Plain(At(host, "pid")) + ", user " +
                                  Plain(At(host, "user")) + "," + Since(host)
                            : "none";
}

std::string LinkText(const json &link)
{
    const json &setBy = At(link, "set_by");
    return Plain(At(link, "state")) + (setBy.is_number() ? " by process " + Plain(setBy) : "") +
           ", host state " + Plain(At(link, "host_state"));
}

void AddItem(Lines &lines, const MonitorModel &model, const json &item, const MonitorView &view)
{
    constexpr std::size_t kValue = 28;
    constexpr std::size_t kAge = 16;
    const json &reading = At(item, "last_reading");
    const std::string values = ValuesText(At(reading, "values"));
    const auto others = values.find(" (");
    const std::string name = At(item, "item").is_string() ? At(item, "item") : json("");
    lines.push_back(
        Cell(Label(At(item, "item")), kLabel) +
        Cell(reading.is_object() ? values.substr(0, others) : "-", kValue) +
        Cell(reading.is_object() ? LengthText(Ms(At(reading, "age_ms")), true) : "", kAge) +
        TrendText(model.Trend(name), view.mIsUtf8));
    const json &problem = At(item, "problem");
    lines.push_back("  " + KeepersText(item) + ", " +
                    (problem.is_string() ? Plain(problem) : "source " + Plain(At(item, "source"))) +
                    (others == std::string::npos ? "" : "; " + values.substr(others + 1)));
}

void AddHelp(Lines &lines)
{
    for (const char *line :
         {"h  set the heart rate of the manual source",
          "w  take the watch off the wrist, or put it on", "s  add steps", "a  set the activity",
          "g  make a gesture", "l  take the accessory link down, or bring it up",
          "m  tell the service that memory is low", "b  tell the service that the battery is low",
          "?  this help, and back", "q  quit; the service goes on", "",
          "A question is answered with the return key, and taken back with escape."}) {
        lines.emplace_back(line);
    }
}

void AddStatus(Lines &lines, const MonitorModel &model, const json &status, const MonitorView &view)
{
    lines.push_back(Cell("", kLabel) + Cell("reading", 28) + Cell("age", 16) + "trend");
    for (const json &item : At(status, "items")) {
        AddItem(lines, model, item, view);
    }
    const json &link = At(status, "link");
    const auto add = [&lines](const std::string &label, const std::string &text) {
        lines.push_back(Cell(label, kLabel) + text);
    };
    lines.emplace_back();
    add("host", HostText(At(status, "host")));
    add("link", LinkText(link));
    add("traffic", TrafficText(link));
    add("", RefusedText(link));
    const json &locks = At(status, "power_locks");
    for (const json &lock : locks) {
        add("power lock",
            LockText(lock) + Since(lock) + ", ends in " + LengthText(Ms(At(lock, "ends_in_ms"))));
    }
    if (locks.empty()) {
        add("power lock", "none");
    }
}

/** What was taken and released: locks of `now` that `before` has not, and the other way round. */
std::string LocksText(const std::string &start, const json &before, const json &now)
{
    const auto isIn = [](const json &locks, const json &lock) {
        return std::any_of(locks.begin(), locks.end(), [&lock](const json &other) {
            return At(other, "state") == At(lock, "state") &&
                   At(other, "since") == At(lock, "since");
        });
    };
    std::string text;
    for (const json &lock : now) {
        if (!isIn(before, lock)) {
            text += start + LockText(lock) + ", taken, ends in " +
                    LengthText(Ms(At(lock, "ends_in_ms"))) + '\n';
        }
    }
    for (const json &lock : before) {
        if (!isIn(now, lock)) {
            text += start + LockText(lock) + ", released\n";
        }
    }
    return text;
}

/** What of a note is on the first of its two rows: whole words, and the blank after them. */
std::string FirstRow(const std::string &note, std::size_t columns)
{
    const std::string fits = Clipped(note, columns);
    const auto blank = fits.rfind(' ');
    return fits.size() == note.size() || blank == std::string::npos ? fits
                                                                    : fits.substr(0, blank + 1);
}

std::string PreferencesText(const std::string &start, const json &before, const json &now)
{
    std::string text;
    if (now.is_object()) {
        for (const auto &[key, value] : now.items()) {
            if (At(before, key.c_str()) != value) {
                text += start + Plain(key) + " = " + Plain(value) + '\n';
            }
        }
    }
    return text;
}

} // namespace

std::string Clipped(std::string_view text, std::size_t columns)
{
    std::size_t bytes = 0;
    while (bytes < text.size()) {
        const bool isFirst = (static_cast<unsigned char>(text[bytes]) & 0xC0U) != 0x80;
        if (isFirst && columns-- == 0) {
            break;
        }
        ++bytes;
    }
    return std::string(text.substr(0, bytes));
}

std::string TrendText(const std::vector<double> &values, bool isUtf8)
{
    constexpr std::size_t kLevels = 8;
    constexpr std::array<const char *, kLevels> kBlocks = {"\u2581", "\u2582", "\u2583", "\u2584",
                                                           "\u2585", "\u2586", "\u2587", "\u2588"};
    constexpr std::array<const char *, kLevels> kAscii = {"_", ".", ",", "-", "=", "+", "*", "#"};
    if (values.empty()) {
        return "";
    }
    const auto [low, high] = std::minmax_element(values.begin(), values.end());
    std::string text;
    for (const double value : values) {
        const double part = *high > *low ? (value - *low) / (*high - *low) : 0.5;
        const auto level = static_cast<std::size_t>(std::lround(part * (kLevels - 1)));
        text += (isUtf8 ? kBlocks : kAscii).at(level);
    }
    return text;
}

std::vector<std::string> MonitorLines(const MonitorModel &model, MonitorModel::Time now,
                                      const MonitorView &view)
{
    const json status = model.Status(now);
    const json &service = At(status, "service");
    Lines lines = {"Parvane: process " + Plain(At(service, "pid")) + ", user " +
                       Plain(At(service, "user")) + ", running for " +
                       LengthText(Ms(At(service, "for_ms"))),
                   ""};
    if (view.mShowsHelp) {
        AddHelp(lines);
    } else {
        AddStatus(lines, model, status, view);
    }
    // The last lines are always there; what does not fit above them is left out.
    const std::string note = view.mPrompt.empty() ? view.mNote : view.mPrompt + "_";
    const std::string first = FirstRow(note, view.mColumns);
    const bool isLong = first.size() < note.size();
    lines.resize(std::max<std::size_t>(view.mRows, 4) - (isLong ? 3 : 2));
    lines.push_back(first);
    if (isLong) {
        lines.push_back(note.substr(first.size()));
    }
    lines.emplace_back("h rate  w worn  s steps  a activity  g gesture  l link  m b low  ? help  "
                       "q quit");
    for (std::string &line : lines) {
        line = Clipped(line, view.mColumns);
    }
    lines.resize(view.mRows);
    return lines;
}

std::string EventText(const json &event, const json &before)
{
    const std::string kind = At(event, "event").is_string() ? At(event, "event") : json("");
    const std::string time = TimeOfDay(At(event, "time"));
    const auto start = [&time](const std::string &label) {
        return Cell(time, 10) + Cell(label, kLabel);
    };
    if (kind == "reading") {
        return start(Label(At(event, "item"))) + ValuesText(At(event, "values")) + '\n';
    }
    if (kind == "item") {
        const json &item = At(event, "item");
        return start(Label(At(item, "item"))) + KeepersText(item) + '\n';
    }
    if (kind == "host") {
        return start("host") + HostText(At(event, "host")) + '\n';
    }
    if (kind == "link") {
        const json &link = At(event, "link");
        const bool isSame = LinkText(link) == LinkText(At(before, "link"));
        return isSame ? start("traffic") + TrafficText(link) + ", " + RefusedText(link) + '\n'
                      : start("link") + LinkText(link) + '\n';
    }
    if (kind == "power_locks") {
        return LocksText(start("power lock"), At(before, "power_locks"), At(event, "power_locks"));
    }
    if (kind == "replay") {
        return start("replay") + ReplayText(At(event, "replay")) + '\n';
    }
    if (kind == "preferences") {
        return PreferencesText(start("preference"), At(before, "preferences"),
                               At(event, "preferences"));
    }
    return kind == "missed"
               ? start("missed") + Counted(At(event, "count"), "message") + ": read faster\n"
               : "";
}

} // namespace ParvaneWatch
