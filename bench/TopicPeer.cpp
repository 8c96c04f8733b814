#include "Peers.h"

#ifdef PARVANE_BENCH_TOPICS

#include <array>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <mosquitto.h>
#include <unistd.h>

#include "Replies.h"

namespace ParvaneBench {

namespace {

constexpr int kKeepAliveSeconds = 600;
constexpr int kWaitMs = 1000;
constexpr int kFirstWaitMs = 20;
constexpr int kFirstLoops = 10;

/** A broker for the life of the object. */
class Broker
{
public:
    explicit Broker(const Setting &setting)
        : mFolder(std::filesystem::temp_directory_path()), mChild(MakeStart(setting))
    {
        WaitForListener(Socket());
    }

    std::filesystem::path Socket() const { return mFolder.Path() / "mqtt.sock"; }

private:
    Child::Start MakeStart(const Setting &setting) const
    {
        const auto file = mFolder.Path() / "mosquitto.conf";
        // The broker gives up root, if it has that, and is to be able to make its socket all the same.
        std::ofstream(file) << "listener 0 " << Socket().string()
                            << "\nallow_anonymous true\npersistence false\n"
                            << (geteuid() == 0 ? "user root\n" : "");
        Child::Start start;
        start.mArguments = {"mosquitto", "-c", file.string()};
        start.mEnvironment = {"PATH=/usr/sbin:/usr/bin:/bin"};
        start.mLog = mFolder.Path() / "log";
        start.mCpu = setting.mServerCpu;
        return start;
    }

    TemporaryFolder mFolder;
    Child mChild;
};

class Library
{
public:
    Library() { mosquitto_lib_init(); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
    ~Library() { mosquitto_lib_cleanup(); }
};

struct Destroy
{
    void operator()(mosquitto *client) const noexcept { mosquitto_destroy(client); }
};

class TopicPeer : public Peer
{
public:
    explicit TopicPeer(const Setting &setting)
        : mBroker(setting), mChild(MakeStart(setting)), mClient(mosquitto_new(nullptr, true, this))
    {
        mosquitto_message_callback_set(mClient.get(), OnMessage);
        const std::string socket = mBroker.Socket().string();
        WaitUntil("a connection to mosquitto", 1000, [this, &socket] {
            return mosquitto_connect(mClient.get(), socket.c_str(), 0, kKeepAliveSeconds) ==
                   MOSQ_ERR_SUCCESS;
        });
        mosquitto_subscribe(mClient.get(), nullptr, kReplyTopic, 0);
        // Until both sides have subscribed nothing is answered.
        WaitUntil("an answer over mosquitto", 1000, [this] {
            Publish(kReadingByte);
            for (int i = 0; i < kFirstLoops && mMessages == 0; ++i) {
                mosquitto_loop(mClient.get(), kFirstWaitMs, 1);
            }
            return mMessages > 0;
        });
    }

    void AskForReading() override { Ask(kReadingByte, std::size(kReadingSizes)); }
    void AskForList() override { Ask(kListByte, std::size(kListSizes)); }

private:
    Child::Start MakeStart(const Setting &setting) const
    {
        Child::Start start;
        start.mArguments = {setting.Yardstick("parvane-bench-topic"), mBroker.Socket().string()};
        start.mCpu = setting.mServerCpu;
        return start;
    }

    static void OnMessage(mosquitto * /*client*/, void *data,
                          const mosquitto_message *message) noexcept
    {
        auto *self = static_cast<TopicPeer *>(data);
        if (message->payloadlen > 0 &&
            *static_cast<const std::uint8_t *>(message->payload) == self->mNumber) {
            ++self->mMessages;
        }
    }

    void Publish(unsigned char what)
    {
        ++mNumber;
        mMessages = 0;
        const std::array<std::uint8_t, 4> request = {what, mNumber, 0, 1};
        mosquitto_publish(mClient.get(), nullptr, kRequestTopic, request.size(), request.data(), 0,
                          false);
    }

    void Ask(unsigned char what, std::size_t messages)
    {
        Publish(what);
        while (mMessages < messages) {
            if (mosquitto_loop(mClient.get(), kWaitMs, 1) != MOSQ_ERR_SUCCESS) {
                Fail("mosquitto has gone");
            }
        }
    }

    Library mLibrary;
    Broker mBroker;
    Child mChild;
    std::unique_ptr<mosquitto, Destroy> mClient;
    /** Goes with the request and comes with its answer. */
    std::uint8_t mNumber = 0;
    /** Messages of that answer so far. */
    std::size_t mMessages = 0;
};

} // namespace

std::unique_ptr<Peer> MakeTopicPeer(const Setting &setting)
{
    return std::make_unique<TopicPeer>(setting);
}

} // namespace ParvaneBench

#else

std::unique_ptr<ParvaneBench::Peer> ParvaneBench::MakeTopicPeer(const Setting & /*setting*/)
{
    return nullptr;
}

#endif
