#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ParvaneHub {

/** Builds a text of OpenMetrics: families one after the other, each with its samples. */
class MetricsText
{
public:
    using Labels = std::vector<std::pair<std::string_view, std::string_view>>;

    /** @param type  "gauge" or "counter"; of a counter the samples have "_total" behind the name */
    void Family(std::string_view name, std::string_view type, std::string_view help);

    /** A sample of the family that was begun last. Values of labels are told as they are. */
    void Sample(double value, const Labels &labels = {});

    /** A family of one sample. */
    void Single(std::string_view name, std::string_view type, std::string_view help, double value)
    {
        Family(name, type, help);
        Sample(value);
    }

    /** The whole. */
    [[nodiscard]] std::string End() const { return mText + "# EOF\n"; }

private:
    std::string mName;
    std::string mText;
};

/** Of this process, so far: seconds of processor time, and bytes in memory. */
double ProcessorSeconds();
std::int64_t ResidentBytes();

} // namespace ParvaneHub
