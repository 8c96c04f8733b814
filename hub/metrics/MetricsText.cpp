#include "MetricsText.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <unistd.h>

namespace ParvaneHub {

void MetricsText::Family(std::string_view name, std::string_view type, std::string_view help)
{
    mName = name;
    mText.append("# TYPE ").append(name).append(" ").append(type).append("\n");
    mText.append("# HELP ").append(name).append(" ").append(help).append("\n");
    if (type == "counter") {
        mName += "_total";
    }
}

void MetricsText::Sample(double value, const Labels &labels)
{
    std::array<char, 32> number{};
    std::snprintf(number.data(), number.size(), "%.15g", value);
    mText += mName;
    char before = '{';
    for (const auto &[name, text] : labels) {
        mText.append(1, before).append(name).append("=\"").append(text).append("\"");
        before = ',';
    }
    mText.append(labels.empty() ? " " : "} ").append(number.data()).append("\n");
}

double ProcessorSeconds()
{
    constexpr double kNanoseconds = 1e9;
    timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / kNanoseconds;
}

std::int64_t ResidentBytes()
{
    std::int64_t size = 0;
    std::int64_t resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

} // namespace ParvaneHub
