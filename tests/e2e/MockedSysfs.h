#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Process.h"

/**
 * A /sys of our own, which a program sees in place of the kernel's when it is started with
 * Variables(). At most one at a time.
 */
class MockedSysfs
{
public:
    MockedSysfs();
    MockedSysfs(const MockedSysfs &) = delete;
    MockedSysfs &operator=(const MockedSysfs &) = delete;
    ~MockedSysfs();

    /** Why a program of this build cannot be shown it; empty when it can. */
    static std::string WhyNot();

    /** What a program needs in its environment to see this tree. */
    Environment Variables() const;

    /** Attributes with their values, which end with a line end; in the order of their making. */
    using Attributes = std::vector<std::pair<std::string, std::string>>;

    /** Adds a device without a parent. */
    void AddDevice(const std::string &subsystem, const std::string &name,
                   const Attributes &attributes) const;

    void RemoveDevice(const std::string &name) const;

    void SetAttribute(const std::string &device, const std::string &attribute,
                      const std::string &value) const;

    std::string Attribute(const std::string &device, const std::string &attribute) const;

private:
    std::filesystem::path Root() const;

    struct TestBed;
    std::unique_ptr<TestBed> mTestBed;
};
