#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Host.h"
#include "Process.h"

/** The real service on the real runtime, in folders of its own. */
class ServiceFixture : public ::testing::Test
{
protected:
    ServiceFixture();

    /** Starts the service, in place of the one before; `more` is added to its environment. */
    Process &StartService(const Environment &more = {});

    /** Ends the running service in order; its exit status. */
    int StopService();

    /** Writes a recording; `rows` without the line of column names, `more` names that it has too. */
    std::string WriteRecording(const std::vector<std::string> &rows,
                               const std::string &more = {}) const;

    std::filesystem::path LinkPath() const { return mRunDirectory / "link.sock"; }
    Environment BaseEnvironment() const;

    TemporaryFolder mFolder;
    std::filesystem::path mStateDirectory;
    std::filesystem::path mRunDirectory;
    std::unique_ptr<Process> mService;
};

/** Bytes of a packet that carries a reading, and the place of its sensor in them. */
constexpr std::size_t kReadingSize = 18;
constexpr std::size_t kSensorOffset = 3;

/** Whether it is a reading packet of this sensor. */
bool IsReadingOf(const Bytes &packet, uint8_t sensor);

/** The value of a reading packet, or NaN if it is none. */
float ValueOf(const Bytes &packet);

/** The time of a reading packet: milliseconds since 1970, modulo 2^32. @throws std::out_of_range */
uint32_t TimeOf(const Bytes &packet);
