#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include <gio/gio.h>

#include "LoopSource.h"
#include "ObjectPtr.h"

namespace Parvane {

/**
 * The bytes of one connection of the network, plain or over TLS; never blocks. What cannot be sent at
 * once waits here, whatever its length: the caller keeps it short by Waiting(). Main-loop thread only.
 */
class WebStream
{
public:
    /** @param stream  connected, a handshake done; its two ends can be polled */
    explicit WebStream(ObjectPtr<GIOStream> stream) : mStream(std::move(stream)) {}

    /** Closes the connection, over TLS with a last word to the other end. */
    ~WebStream();

    WebStream(const WebStream &) = delete;
    WebStream &operator=(const WebStream &) = delete;

    /** Calls `onReadable` while bytes can be read, or the end. In place of an earlier one. */
    void WatchInput(std::function<void()> onReadable);
    void RestInput() { mInput.Remove(); }

    /** Called whenever bytes that have waited were sent, and when sending has failed. */
    void SetSentHandler(std::function<void()> onSent) { mOnSent = std::move(onSent); }

    static constexpr std::ptrdiff_t kNothing = -1;

    /** @return how many bytes there are; 0 at the end, also of a broken connection; or kNothing */
    std::ptrdiff_t Read(std::span<std::uint8_t> buffer);

    /** Sends the bytes, or keeps them; after a failure they are dropped. */
    void Write(std::string_view bytes);

    /** The bytes that have not been sent. */
    [[nodiscard]] std::size_t Waiting() const { return mOut.size() - mSent; }

    /** How many connections of this thread have their last word on its way; each for a second at most. */
    static int Ending();

    /** Whether sending has failed: nothing more will be sent. */
    [[nodiscard]] bool IsBroken() const { return mIsBroken; }

private:
    void Flush();
    void OnWritable();

    ObjectPtr<GIOStream> mStream;
    std::string mOut;
    std::size_t mSent = 0; // of mOut
    bool mIsBroken = false;
    std::function<void()> mOnSent;
    LoopSource mInput;
    LoopSource mOutput;
};

} // namespace Parvane
