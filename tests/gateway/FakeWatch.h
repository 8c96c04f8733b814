#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "UniqueFd.h"

namespace ParvaneGateway {

using Bytes = std::vector<std::uint8_t>;

/** A folder of the test's own, which goes with the object. */
class TestFolder
{
public:
    TestFolder();
    ~TestFolder();

    TestFolder(const TestFolder &) = delete;
    TestFolder &operator=(const TestFolder &) = delete;

    [[nodiscard]] std::string Path(const std::string &name) const { return mPath / name; }

private:
    std::filesystem::path mPath;
};

/** The watch's end of the accessory link; nothing happens by itself, and nothing blocks. */
class FakeWatch
{
public:
    explicit FakeWatch(const std::string &path);

    /** Takes the next connection in place of the one before. @return whether there was one */
    bool Accept();

    /** The next packet of the phone; empty for none. */
    std::optional<Bytes> Receive();

    /** @return whether there was room */
    bool Send(const Bytes &packet);

    /** Whether the gateway has closed its end. */
    bool HasEnded();

    /** Closes the connection. */
    void Close() { mHost.Reset(); }

private:
    Parvane::UniqueFd mListener;
    Parvane::UniqueFd mHost;
};

} // namespace ParvaneGateway
