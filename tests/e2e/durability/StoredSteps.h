#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

/** The steps of the day as a service has left them on the disk, read as another program would. */
struct StoredSteps
{
    /** What SQLite says of the file: "ok", or what is wrong. */
    std::string mIntegrity;
    int64_t mTotal = -1;
    /** The value as it is stored, of which the total is the first number. */
    std::string mText;
    int64_t mTime = -1;

    /**
     * Reads a copy of the preferences in `stateDirectory`, so that a log which the service has left
     * stays for its next start. The copy is made in `scratch`.
     */
    static StoredSteps Read(const std::filesystem::path &stateDirectory,
                            const std::filesystem::path &scratch);
};
