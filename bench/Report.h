#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace ParvaneBench {

/** What a number of rounds have given. */
struct Summary
{
    double mMedian = 0;
    double mLeast = 0;
    double mMost = 0;
};

/** @param values  at least one */
Summary Summarize(std::vector<double> values);

/** What was measured once. */
Summary Single(double value);

/** What a figure must be. */
struct Budget
{
    enum class Kind { AtMost, AtLeast };
    Kind mKind = Kind::AtMost;
    double mLimit = 0;
    /** Head-room of --check: a limit of 2 allows 4 then; 1 is for what does not depend on load. */
    double mHeadRoom = 2;
    /** False when the machine says more about the figure than the service does. */
    bool mIsSteady = true;
};

/** One line of the table. */
struct Row
{
    std::string mName;
    std::string mUnit;
    Summary mValue;
    std::string mYardstick;
    std::optional<Summary> mYardstickValue;
    /** What is compared with the budget; without it the value is. */
    std::optional<Summary> mRatio;
    std::optional<Budget> mBudget;
    /** Why there is no value; empty when there is one. */
    std::string mMissing;

    const Summary &Judged() const { return mRatio ? *mRatio : mValue; }
};

enum class Format { Text, Json, Markdown };

/** True when the row keeps its budget, or has none; with `isCheck` the budget has its head-room. */
bool IsKept(const Row &row, bool isCheck);

/** Prints all rows. */
void Print(const std::vector<Row> &rows, Format format, bool isCheck, std::FILE *out);

} // namespace ParvaneBench
