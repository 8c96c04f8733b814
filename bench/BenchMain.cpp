/**
 * @file
 * How fast and how small the service is, next to the least that a program on the same system needs.
 *
 * Usage: parvane-bench SERVICE [--gateway EXECUTABLE] [--disk DIRECTORY] [--armhf EXECUTABLE]
 *                      [--quick] [--check] [--only TEXT] [--json|--markdown]
 *   --gateway   the gateway's executable
 *   --disk      where what has to be durable is written; default: the working directory
 *   --armhf     the stripped executable whose size is told
 *   --quick     fewer rounds
 *   --only      only the measurements whose progress line has TEXT in it
 *   --check     budgets with head-room, for machines that do other work as well
 *
 * Progress goes to standard error, the table to standard output. Exit status: 0 when every budget is
 * kept, 3 when one is not, 1 when something could not be measured, 2 for bad usage.
 */

#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <string_view>

#include "Measurements.h"

using namespace ParvaneBench;

namespace {

constexpr int kMissed = 3;

struct CommandLine
{
    Setting mSetting;
    std::filesystem::path mArmhf;
    std::string mOnly;
    Format mFormat = Format::Text;
    bool mIsCheck = false;
};

bool ReadOption(CommandLine &line, std::string_view option, const char *value, int &i)
{
    if (option == "--quick") {
        line.mSetting.mIsQuick = true;
    } else if (option == "--check") {
        line.mIsCheck = true;
    } else if (option == "--json") {
        line.mFormat = Format::Json;
    } else if (option == "--markdown") {
        line.mFormat = Format::Markdown;
    } else if (option == "--disk" && value != nullptr) {
        line.mSetting.mDisk = std::filesystem::absolute(value);
        ++i;
    } else if (option == "--gateway" && value != nullptr) {
        line.mSetting.mGateway = std::filesystem::absolute(value);
        ++i;
    } else if (option == "--armhf" && value != nullptr) {
        line.mArmhf = value;
        ++i;
    } else if (option == "--only" && value != nullptr) {
        line.mOnly = value;
        ++i;
    } else {
        return false;
    }
    return true;
}

bool ReadCommandLine(CommandLine &line, int argc, char **argv)
{
    if (argc < 2) {
        return false;
    }
    line.mSetting.mService = std::filesystem::absolute(argv[1]);
    line.mSetting.mYardsticks = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    line.mSetting.mDisk = std::filesystem::current_path();
    for (int i = 2; i < argc; ++i) {
        if (!ReadOption(line, argv[i], i + 1 < argc ? argv[i + 1] : nullptr, i)) {
            return false;
        }
    }
    return true;
}

using Measurement = std::vector<Row> (*)(const Setting &);

struct Step
{
    const char *mName;
    Measurement mMeasure;
    /** Whether it is made on one processor, too, rather than on two only. */
    bool mOnOne;
    bool mOnTwo;
};

constexpr Step kSteps[] = {
    {"round trips", MeasureRoundTrips, true, true},
    {"64 requests in flight", MeasureManyInFlight, true, true},
    {"allocations", MeasureAllocations, false, true},
    {"durable updates", MeasureDurableUpdate, false, true},
    {"memory", MeasureMemory, false, true},
    {"starts", MeasureStart, false, true},
    {"wake-ups", MeasureWakeUps, false, true},
    {"a week at speed", MeasureWeek, false, true},
    {"many watches", MeasureFleet, false, true},
    {"gateway round trips", MeasureGatewayTrips, true, false},
    {"gateway footprint", MeasureGatewayFootprint, false, true},
};

void Add(std::vector<Row> &rows, const std::vector<Row> &more)
{
    rows.insert(rows.end(), more.begin(), more.end());
}

std::vector<Row> MeasureAll(CommandLine &line)
{
    const std::vector<int> cpus = AllowedCpus();
    Setting &setting = line.mSetting;
    setting.mClientCpu = cpus.front();
    BindTo(setting.mClientCpu);
    const auto begin = Clock::now();
    std::vector<Row> rows;
    for (const Step &step : kSteps) {
        if (std::string_view(step.mName).find(line.mOnly) == std::string_view::npos) {
            continue;
        }
        for (const bool isOnOne : {true, false}) {
            if (!(isOnOne ? step.mOnOne : step.mOnTwo && (cpus.size() > 1 || !step.mOnOne))) {
                continue;
            }
            setting.mServerCpu = isOnOne ? cpus.front() : cpus.back();
            std::fprintf(stderr, "parvane-bench: %3.0f s: %s, %s\n", MicrosSince(begin) / 1e6,
                         step.mName, isOnOne || cpus.size() == 1 ? "one core" : "two cores");
            Add(rows, step.mMeasure(setting));
        }
    }
    rows.push_back(MeasureSize(line.mArmhf));
    std::fprintf(stderr, "parvane-bench: %3.0f s: done\n", MicrosSince(begin) / 1e6);
    return rows;
}

int Run(int argc, char **argv)
{
    CommandLine line;
    if (!ReadCommandLine(line, argc, argv)) {
        std::fprintf(stderr,
                     "usage: parvane-bench SERVICE [--gateway EXECUTABLE] [--disk DIRECTORY] "
                     "[--armhf EXECUTABLE] [--only TEXT] [--quick] [--check] "
                     "[--json|--markdown]\n");
        return 2;
    }
    const std::vector<Row> rows = MeasureAll(line);
    Print(rows, line.mFormat, line.mIsCheck, stdout);
    int status = 0;
    for (const Row &row : rows) {
        if (!IsKept(row, line.mIsCheck)) {
            std::fprintf(stderr, "parvane-bench: not kept: %s (%s)\n", row.mName.c_str(),
                         row.mYardstick.c_str());
            status = kMissed;
        }
    }
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return Run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "parvane-bench: %s\n", error.what());
        return 1;
    }
}
