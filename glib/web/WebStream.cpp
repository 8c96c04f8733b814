#include "WebStream.h"

#include <algorithm>
#include <utility>

namespace Parvane {

namespace {

/** One record of TLS. */
constexpr std::size_t kMostAtOnce = 16384;

/** How long the last word over TLS may take. */
constexpr std::chrono::milliseconds kCloseTime{1000};

bool IsNothing(GError *failure)
{
    const ErrorPtr owned(failure);
    return g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK) != FALSE;
}

/** How many there are. */
thread_local int ending = 0;

/** What is left of a connection while its last word is on its way. */
struct Closing
{
    Closing() { ++ending; }
    ~Closing() { --ending; }
    Closing(const Closing &) = delete;
    Closing &operator=(const Closing &) = delete;

    ObjectPtr<GIOStream> mStream;
    ObjectPtr<GCancellable> mCancellable{g_cancellable_new()};
    LoopSource mTimer;
};

void OnClosed(GObject * /*stream*/, GAsyncResult * /*result*/, gpointer data) noexcept
{
    const std::unique_ptr<Closing> owned(static_cast<Closing *>(data));
}

} // namespace

WebStream::~WebStream()
{
    mInput.Remove();
    mOutput.Remove();
    auto closing = std::make_unique<Closing>();
    closing->mStream = std::move(mStream);
    GCancellable *cancellable = closing->mCancellable.get();
    closing->mTimer =
        LoopSource::After(kCloseTime, [cancellable] { g_cancellable_cancel(cancellable); });
    GIOStream *stream = closing->mStream.get();
    g_io_stream_close_async(stream, G_PRIORITY_DEFAULT, cancellable, OnClosed, closing.release());
}

int WebStream::Ending()
{
    return ending;
}

void WebStream::WatchInput(std::function<void()> onReadable)
{
    GInputStream *input = g_io_stream_get_input_stream(mStream.get());
    mInput = LoopSource::WatchStream(
        g_pollable_input_stream_create_source(G_POLLABLE_INPUT_STREAM(input), nullptr),
        std::move(onReadable));
}

std::ptrdiff_t WebStream::Read(std::span<std::uint8_t> buffer)
{
    GInputStream *input = g_io_stream_get_input_stream(mStream.get());
    GError *failure = nullptr;
    const gssize count = g_pollable_input_stream_read_nonblocking(
        G_POLLABLE_INPUT_STREAM(input), buffer.data(), buffer.size(), nullptr, &failure);
    if (count >= 0) {
        return count;
    }
    return IsNothing(failure) ? kNothing : 0;
}

void WebStream::Write(std::string_view bytes)
{
    if (mIsBroken) {
        return;
    }
    mOut += bytes;
    if (!mOutput.IsActive()) {
        Flush();
    }
}

void WebStream::Flush()
{
    GOutputStream *output = g_io_stream_get_output_stream(mStream.get());
    while (Waiting() > 0) {
        GError *failure = nullptr;
        const gssize count = g_pollable_output_stream_write_nonblocking(
            G_POLLABLE_OUTPUT_STREAM(output), mOut.data() + mSent, std::min(Waiting(), kMostAtOnce),
            nullptr, &failure);
        if (count >= 0) {
            mSent += static_cast<std::size_t>(count);
        } else if (IsNothing(failure)) {
            break;
        } else {
            mIsBroken = true;
            mSent = mOut.size();
        }
    }
    if (Waiting() == 0) {
        mOut.clear();
        mSent = 0;
        mOutput.Remove();
    } else if (!mOutput.IsActive()) {
        mOutput = LoopSource::WatchStream(
            g_pollable_output_stream_create_source(G_POLLABLE_OUTPUT_STREAM(output), nullptr),
            [this] { OnWritable(); });
    }
}

void WebStream::OnWritable()
{
    if (mSent > kMostAtOnce) {
        mOut.erase(0, std::exchange(mSent, 0));
    }
    Flush();
    if (const auto onSent = mOnSent) {
        onSent();
    }
}

} // namespace Parvane
