#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "MonitorModel.h"

namespace ParvaneWatch {

/** What the screen shows besides the model. */
struct MonitorView
{
    std::size_t mColumns = 80;
    std::size_t mRows = 24;
    /** Whether trends may be of characters that are not ASCII. */
    bool mIsUtf8 = false;
    /** What became of the last key, or of the service. */
    std::string mNote;
    /** A question that is open. */
    std::string mPrompt;
    bool mShowsHelp = false;
};

/** The screen: as many lines as it has rows, none longer than it is wide. */
std::vector<std::string> MonitorLines(const MonitorModel &model, MonitorModel::Time now,
                                      const MonitorView &view);

/** A small picture of numbers, a character each, from the lowest to the highest of them. */
std::string TrendText(const std::vector<double> &values, bool isUtf8);

/** The first `columns` characters of UTF-8. */
std::string Clipped(std::string_view text, std::size_t columns);

/** What one event says, as lines with their ends. @param before  the status before it */
std::string EventText(const nlohmann::json &event, const nlohmann::json &before);

} // namespace ParvaneWatch
