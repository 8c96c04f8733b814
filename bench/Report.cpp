#include "Report.h"

#include <algorithm>
#include <array>

namespace ParvaneBench {

namespace {

using Cells = std::array<std::string, 6>;

constexpr std::size_t kWidths[] = {56, 28, 56, 22, 10, 6};

std::string Number(double value)
{
    char text[64];
    const double size = value < 0 ? -value : value;
    const int digits = size >= 100 || value == 0 ? 0 : size >= 10 ? 1 : 2;
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string Spread(const Summary &summary, const std::string &unit)
{
    std::string text = Number(summary.mMedian);
    if (!unit.empty()) {
        text += ' ' + unit;
    }
    if (summary.mLeast != summary.mMost) {
        text += " (" + Number(summary.mLeast) + " to " + Number(summary.mMost) + ')';
    }
    return text;
}

std::string LimitOf(const Budget &budget)
{
    char limit[64];
    std::snprintf(limit, sizeof limit, "%g", budget.mLimit);
    return (budget.mKind == Budget::Kind::AtMost ? "<= " : ">= ") + std::string(limit);
}

std::string VerdictOf(const Row &row, bool isCheck)
{
    if (!row.mBudget || !row.mMissing.empty()) {
        return "";
    }
    return IsKept(row, isCheck) ? "yes" : "NO";
}

Cells CellsOf(const Row &row, bool isCheck)
{
    Cells cells;
    cells[0] = row.mName;
    cells[1] = row.mMissing.empty() ? Spread(row.mValue, row.mUnit) : row.mMissing;
    if (row.mYardstickValue && row.mMissing.empty()) {
        cells[2] = row.mYardstick + ": " + Spread(*row.mYardstickValue, row.mUnit);
    }
    if (row.mRatio && row.mMissing.empty()) {
        cells[3] = Spread(*row.mRatio, "");
    }
    if (row.mBudget) {
        cells[4] = LimitOf(*row.mBudget);
    }
    cells[5] = VerdictOf(row, isCheck);
    return cells;
}

const Cells kHead = {"figure", "median (least to most)", "yardstick", "ratio", "must be", "kept"};

void PrintText(const std::vector<Row> &rows, bool isCheck, std::FILE *out)
{
    const auto print = [out](const Cells &cells) {
        for (std::size_t i = 0; i < cells.size(); ++i) {
            std::fprintf(out, "%-*s%s", static_cast<int>(kWidths[i]), cells[i].c_str(),
                         i + 1 < cells.size() ? " " : "\n");
        }
    };
    print(kHead);
    for (const Row &row : rows) {
        print(CellsOf(row, isCheck));
    }
}

void PrintMarkdown(const std::vector<Row> &rows, bool isCheck, std::FILE *out)
{
    const auto print = [out](const Cells &cells) {
        std::fprintf(out, "|");
        for (const std::string &cell : cells) {
            std::fprintf(out, " %s |", cell.c_str());
        }
        std::fprintf(out, "\n");
    };
    print(kHead);
    std::fprintf(out, "|---|---|---|---|---|---|\n");
    for (const Row &row : rows) {
        print(CellsOf(row, isCheck));
    }
}

void PrintSummary(const char *name, const Summary &summary, std::FILE *out)
{
    std::fprintf(out, ",\"%s\":{\"median\":%.4f,\"least\":%.4f,\"most\":%.4f}", name,
                 summary.mMedian, summary.mLeast, summary.mMost);
}

/** Names and units have nothing in them that JSON would want escaped. */
void PrintJson(const std::vector<Row> &rows, bool isCheck, std::FILE *out)
{
    std::fprintf(out, "[");
    const char *separator = "";
    for (const Row &row : rows) {
        std::fprintf(out, "%s\n{\"figure\":\"%s\",\"unit\":\"%s\"", separator, row.mName.c_str(),
                     row.mUnit.c_str());
        separator = ",";
        if (!row.mMissing.empty()) {
            std::fprintf(out, ",\"missing\":\"%s\"}", row.mMissing.c_str());
            continue;
        }
        PrintSummary("value", row.mValue, out);
        if (row.mYardstickValue) {
            std::fprintf(out, ",\"yardstick\":\"%s\"", row.mYardstick.c_str());
            PrintSummary("yardstick_value", *row.mYardstickValue, out);
        }
        if (row.mRatio) {
            PrintSummary("ratio", *row.mRatio, out);
        }
        if (row.mBudget) {
            std::fprintf(out, ",\"%s\":%g,\"kept\":%s",
                         row.mBudget->mKind == Budget::Kind::AtMost ? "at_most" : "at_least",
                         row.mBudget->mLimit, IsKept(row, isCheck) ? "true" : "false");
        }
        std::fprintf(out, "}");
    }
    std::fprintf(out, "\n]\n");
}

} // namespace

Summary Summarize(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return {values[values.size() / 2], values.front(), values.back()};
}

Summary Single(double value)
{
    return {value, value, value};
}

bool IsKept(const Row &row, bool isCheck)
{
    if (!row.mBudget || !row.mMissing.empty() || (isCheck && !row.mBudget->mIsSteady)) {
        return true;
    }
    const double headRoom = isCheck ? row.mBudget->mHeadRoom : 1;
    if (row.mBudget->mKind == Budget::Kind::AtMost) {
        return row.Judged().mMedian <= row.mBudget->mLimit * headRoom;
    }
    return row.Judged().mMedian >= row.mBudget->mLimit / headRoom;
}

void Print(const std::vector<Row> &rows, Format format, bool isCheck, std::FILE *out)
{
    switch (format) {
    case Format::Text:
        PrintText(rows, isCheck, out);
        break;
    case Format::Json:
        PrintJson(rows, isCheck, out);
        break;
    case Format::Markdown:
        PrintMarkdown(rows, isCheck, out);
        break;
    }
}

} // namespace ParvaneBench
