#include <array>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gio/gio.h>

#include "Measurements.h"
#include "MessageBus.h"

namespace ParvaneBench {

namespace {

constexpr char kMissing[] = "not built: its library is missing";

struct ObjectRelease
{
    void operator()(gpointer object) const noexcept { g_object_unref(object); }
};
template <typename T>
using ObjectPtr = std::unique_ptr<T, ObjectRelease>;

gboolean AcceptCertificate(GTlsConnection * /*connection*/, GTlsCertificate * /*certificate*/,
                           GTlsCertificateFlags /*errors*/, gpointer /*data*/) noexcept
{
    return TRUE;
}

/** Connects to a port of this host, from 127.0.y.z: nothing runs out of ports. */
Fd ConnectToPort(int port, unsigned source)
{
    const auto addressOf = [](unsigned host, int number) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + host);
        address.sin_port = htons(static_cast<std::uint16_t>(number));
        return address;
    };
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int yes = 1;
    const timeval timeout = {20, 0};
    const sockaddr_in from = addressOf(source, 0);
    const sockaddr_in to = addressOf(0, port);
    setsockopt(fd.Get(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &yes, sizeof yes);
    setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (bind(fd.Get(), reinterpret_cast<const sockaddr *>(&from), sizeof from) != 0 ||
        connect(fd.Get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0) {
        FailErrno("connect to port " + std::to_string(port));
    }
    return fd;
}

std::string UpgradeRequest(const std::string &token)
{
    return "GET /link HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
           "Sec-WebSocket-Protocol: parvane.link.v1\r\nAuthorization: Bearer " +
           token + "\r\n\r\n";
}

/** A phone on a WebSocket, with TLS or without. */
class WebPhone
{
public:
    WebPhone(int port, bool isTls, const std::string &token, unsigned source = 0)
        : mSocket(ConnectToPort(port, source))
    {
        const ObjectPtr<GSocket> socket(g_socket_new_from_fd(dup(mSocket.Get()), nullptr));
        mStream.reset(G_IO_STREAM(g_socket_connection_factory_create_connection(socket.get())));
        if (isTls) {
            GIOStream *tls = g_tls_client_connection_new(mStream.get(), nullptr, nullptr);
            if (tls == nullptr) {
                Fail("no TLS: its module is missing");
            }
            g_signal_connect(tls, "accept-certificate", G_CALLBACK(AcceptCertificate), nullptr);
            mStream.reset(tls);
        }
        bool isGood = Write(UpgradeRequest(token));
        std::size_t end = std::string::npos;
        while (isGood && (end = mInput.find("\r\n\r\n")) == std::string::npos) {
            isGood = Read();
        }
        if (!isGood || !mInput.starts_with("HTTP/1.1 101 ")) {
            Fail("no WebSocket: " + mInput.substr(0, mInput.find('\r')));
        }
        mInput.erase(0, end + 4);
    }

    /** Asks for a reading. @return whether that is what came: else the server has closed it */
    bool Ask()
    {
        // Masked with zeros.
        static const std::string request("\x82\x84\0\0\0\0\2\0\0\1", 10);
        return Write(request) && NextFrame() == 0x82;
    }

    /** Answers pings until there was none for so long. @return how many */
    int AnswerPings(int seconds)
    {
        int pings = 0;
        const timeval timeout = {1, 0};
        setsockopt(mSocket.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        const auto begin = Clock::now();
        std::array<char, 16> frame{};
        while (MicrosSince(begin) < seconds * 1e6) {
            if (recv(mSocket.Get(), frame.data(), frame.size(), 0) > 0 && frame[0] == '\x89') {
                ++pings;
                SendMessage(mSocket, "\x8A\x80\0\0\0\0", 6);
            }
        }
        return pings;
    }

private:
    /** The first byte of the next frame, which is short; -1 when the connection has ended. */
    int NextFrame()
    {
        const auto size = [this] { return 2 + std::size_t{static_cast<unsigned char>(mInput[1])}; };
        while (mInput.size() < 2 || mInput.size() < size()) {
            if (!Read()) {
                return -1;
            }
        }
        const int first = static_cast<unsigned char>(mInput[0]);
        mInput.erase(0, size());
        return first;
    }

    bool Write(const std::string &bytes)
    {
        return g_output_stream_write_all(g_io_stream_get_output_stream(mStream.get()), bytes.data(),
                                         bytes.size(), nullptr, nullptr, nullptr) != FALSE;
    }

    bool Read()
    {
        std::array<char, 4096> buffer; // NOLINT: filled by the read
        const gssize count = g_input_stream_read(g_io_stream_get_input_stream(mStream.get()),
                                                 buffer.data(), buffer.size(), nullptr, nullptr);
        mInput.append(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        return count > 0;
    }

    Fd mSocket;
    ObjectPtr<GIOStream> mStream;
    std::string mInput;
};

/** What a program has written to a pipe, until a text is in it. */
class OutputPipe
{
public:
    OutputPipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            FailErrno("pipe");
        }
        mRead = Fd(ends[0]);
        mWrite = Fd(ends[1]);
    }

    int WriteEnd() const { return mWrite.Get(); }

    std::string ReadUntil(const std::string &end)
    {
        mWrite = Fd();
        std::string text;
        char byte = 0;
        while (text.find(end) == std::string::npos) {
            if (read(mRead.Get(), &byte, 1) != 1) {
                Fail("a program has ended too early: " + text);
            }
            text += byte;
        }
        return text;
    }

private:
    Fd mRead;
    Fd mWrite;
};

/** A service with a gateway before it, in folders of their own. */
class Gateway
{
public:
    explicit Gateway(const Setting &setting, const std::string &bus = {})
        : mService(setting, {}),
          mFolder(std::filesystem::temp_directory_path()),
          mBus(bus),
          mToken(AddToken(setting)),
          mChild(MakeStart(setting, {}, -1))
    {
        std::string text;
        WaitUntil("the gateway", 1000, [&] {
            std::ifstream log(Log());
            text.clear();
            for (std::string line; std::getline(log, line);) {
                text += line + '\n';
            }
            return text.find("serving\n") != std::string::npos;
        });
        mPort = std::stoi(text.substr(text.find(" port ") + 6));
    }

    int Port() const { return mPort; }
    const std::string &Token() const { return mToken; }
    pid_t Pid() const { return mChild.Pid(); }
    std::string StateFile(const std::string &name) const
    {
        return (mFolder.Path() / "state" / name).string();
    }

private:
    std::filesystem::path Log() const { return mFolder.Path() / "log"; }

    Child::Start MakeStart(const Setting &setting, const std::vector<std::string> &arguments,
                           int output) const
    {
        Child::Start start;
        start.mArguments = {setting.mGateway.string(), "--config",
                            (mFolder.Path() / "gateway.conf").string()};
        start.mArguments.insert(start.mArguments.end(), arguments.begin(), arguments.end());
        start.mEnvironment = {"DBUS_SYSTEM_BUS_ADDRESS=" + mBus};
        start.mLog = Log();
        start.mOutput = output;
        start.mCpu = setting.mServerCpu;
        return start;
    }

    std::string AddToken(const Setting &setting) const
    {
        const std::filesystem::path folder = mFolder.Path();
        std::filesystem::create_directory(folder / "state");
        std::ofstream(folder / "gateway.conf")
            << "[watch]\ndirectory=" << mService.LinkPath().parent_path().string()
            << "\n[web]\nport=0\n[bluetooth]\nenabled=" << (mBus.empty() ? "no" : "yes")
            << "\n[directories]\nstate=" << (folder / "state").string()
            << "\nruntime=" << (folder / "run").string() << '\n';
        OutputPipe output;
        const Child command(
            MakeStart(setting, {"token", "add", "bench", "--json"}, output.WriteEnd()));
        const std::string text = output.ReadUntil("\n");
        constexpr char kBefore[] = "\"token\":\"";
        const std::size_t begin = text.find(kBefore) + sizeof kBefore - 1;
        return text.substr(begin, text.find('"', begin) - begin);
    }

    Service mService;
    TemporaryFolder mFolder;
    std::string mBus;
    std::string mToken;
    Child mChild;
    int mPort = 0;
};

/** The bare server of libsoup, with the gateway's certificate. */
class SoupServer
{
public:
    SoupServer(const Setting &setting, const Gateway &gateway) : mChild(MakeStart(setting, gateway))
    {
        const std::string text = mOutput.ReadUntil("\n");
        mPort = std::stoi(text);
        mSecurePort = std::stoi(text.substr(text.find(' ')));
    }

    int Port(bool isTls) const { return isTls ? mSecurePort : mPort; }
    pid_t Pid() const { return mChild.Pid(); }

private:
    Child::Start MakeStart(const Setting &setting, const Gateway &gateway) const
    {
        Child::Start start;
        start.mArguments = {setting.Yardstick("parvane-bench-soup"),
                            gateway.StateFile("certificate.pem"), gateway.StateFile("key.pem")};
        start.mOutput = mOutput.WriteEnd();
        start.mCpu = setting.mServerCpu;
        return start;
    }

    OutputPipe mOutput;
    Child mChild;
    int mPort = 0;
    int mSecurePort = 0;
};

double AskMany(WebPhone &phone, int requests)
{
    const auto begin = Clock::now();
    for (int i = 0; i < requests; ++i) {
        if (!phone.Ask()) {
            Fail("a WebSocket was closed");
        }
    }
    return MicrosSince(begin) / requests;
}

Row CompareTrips(const Gateway &gateway, const SoupServer &echo, bool isTls, int rounds)
{
    constexpr int kRequests = 50;
    WebPhone phone(gateway.Port(), isTls, gateway.Token());
    WebPhone bare(echo.Port(isTls), isTls, "");
    AskMany(phone, 3 * kRequests);
    AskMany(bare, 3 * kRequests);
    std::vector<double> trips;
    std::vector<double> bareTrips;
    std::vector<double> ratios;
    for (int round = 0; round < rounds; ++round) {
        trips.push_back(AskMany(phone, kRequests));
        bareTrips.push_back(AskMany(bare, kRequests));
        ratios.push_back(trips.back() / bareTrips.back());
    }
    Row row;
    row.mName = std::string("phone - gateway - watch and back, ") + (isTls ? "TLS" : "plain") +
                ", one core";
    row.mUnit = "us";
    row.mValue = Summarize(trips);
    row.mYardstick = "bare libsoup WebSocket";
    row.mYardstickValue = Summarize(bareTrips);
    row.mRatio = Summarize(ratios);
    row.mBudget = Budget{Budget::Kind::AtMost, 2.2, 2, true};
    return row;
}

std::filesystem::path Proc(pid_t pid)
{
    return std::filesystem::path("/proc") / std::to_string(pid);
}

double PrivateMemory(pid_t pid)
{
    const auto file = Proc(pid) / "smaps_rollup";
    return static_cast<double>(NumberIn(file, "Private_Clean:") + NumberIn(file, "Private_Dirty:"));
}

double Descriptors(pid_t pid)
{
    const std::filesystem::directory_iterator folder(Proc(pid) / "fd");
    return static_cast<double>(std::distance(begin(folder), end(folder)));
}

/** How often each thread of a process has slept. */
std::map<std::string, std::int64_t> Sleeps(pid_t pid)
{
    std::map<std::string, std::int64_t> sleeps;
    for (const auto &thread : std::filesystem::directory_iterator(Proc(pid) / "task")) {
        sleeps[thread.path().filename()] =
            NumberIn(thread.path() / "status", "voluntary_ctxt_switches:");
    }
    return sleeps;
}

/** How often the threads that there are have slept since. */
double SleepsSince(pid_t pid, std::map<std::string, std::int64_t> before)
{
    std::int64_t sum = 0;
    for (const auto &[thread, sleeps] : Sleeps(pid)) {
        sum += sleeps - before[thread];
    }
    return static_cast<double>(sum);
}

Row MeasureMemoryAboveSoup(const Setting &setting)
{
    const MessageBus bus(setting);
    const Gateway gateway(setting, bus.Address());
    const SoupServer echo(setting, gateway);
    for (const bool isTls : {false, true}) {
        WebPhone phone(gateway.Port(), isTls, gateway.Token());
        WebPhone bare(echo.Port(isTls), isTls, "");
        AskMany(phone, 1000);
        AskMany(bare, 1000);
    }
    Row row;
    row.mName = "gateway: private memory above a bare libsoup server's";
    row.mUnit = "kB";
    const double bare = PrivateMemory(echo.Pid());
    row.mValue = Single(PrivateMemory(gateway.Pid()) - bare);
    row.mYardstick = "bare libsoup server";
    row.mYardstickValue = Single(bare);
    row.mBudget = Budget{Budget::Kind::AtMost, 2048, 1, true};
    return row;
}

/** Reads until the server closes its end. */
void ReadToEnd(const Fd &fd)
{
    std::array<char, 4096> buffer; // NOLINT: nobody looks at it
    while (recv(fd.Get(), buffer.data(), buffer.size(), 0) > 0) {
    }
}

/** Connections of every kind, each of which ends. @return how many phones were served */
int Visit(const Gateway &gateway, int count)
{
    constexpr unsigned kAddresses = 1000;
    const std::string wrong = UpgradeRequest("wrong");
    const std::string page = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    int served = 0;
    for (int i = 0; i < count; ++i) {
        const auto source = static_cast<unsigned>(i / 4) % kAddresses;
        if (i % 4 == 0) {
            const Fd fd = ConnectToPort(gateway.Port(), source);
            SendMessage(fd, page.data(), page.size() / 2);
        } else if (i % 4 == 2) {
            WebPhone phone(gateway.Port(), i % 100 == 2, gateway.Token(), source);
            served += phone.Ask() ? 1 : 0;
        } else {
            // Whoever has tried too many wrong tokens has to wait, with a right one too.
            const bool isWrong = i % 4 == 1;
            const std::string &request = isWrong ? wrong : page;
            const Fd fd = ConnectToPort(gateway.Port(), source + (isWrong ? kAddresses : 0));
            SendMessage(fd, request.data(), request.size());
            ReadToEnd(fd);
        }
    }
    return served;
}

std::vector<Row> MeasureGrowth(const Setting &setting)
{
    const Gateway gateway(setting);
    const int warmUp = 4000;
    const int count = setting.mIsQuick ? 6000 : 100000;
    Visit(gateway, warmUp);
    const double descriptors = Descriptors(gateway.Pid());
    const double memory = PrivateMemory(gateway.Pid());
    if (Visit(gateway, count) < count / 8) {
        Fail("the gateway has served too few phones");
    }
    WaitUntil("the end of the last connections", 1000,
              [&] { return Descriptors(gateway.Pid()) <= descriptors; });
    const std::string after = " after " + std::to_string(count) + " connections";
    Row grown;
    grown.mName = "gateway: private memory grown" + after;
    grown.mUnit = "kB";
    grown.mValue = Single(PrivateMemory(gateway.Pid()) - memory);
    grown.mBudget = Budget{Budget::Kind::AtMost, 128, 1, true};
    Row open;
    open.mName = "gateway: descriptors left" + after;
    open.mValue = Single(Descriptors(gateway.Pid()) - descriptors);
    open.mBudget = Budget{Budget::Kind::AtMost, 0, 1, true};
    return {grown, open};
}

std::vector<Row> MeasureGatewayWakeUps(const Setting &setting)
{
    constexpr unsigned kSecondUs = 1'000'000;
    const int seconds = setting.mIsQuick ? 5 : 65;
    const MessageBus bus(setting);
    const Gateway idle(setting, bus.Address());
    const Gateway visited(setting, bus.Address());
    WebPhone phone(visited.Port(), false, visited.Token());
    if (!phone.Ask()) {
        Fail("a WebSocket was closed");
    }
    // What the start has left to do: GLib's idle threads end after 15 s.
    usleep((setting.mIsQuick ? 2 : 20) * kSecondUs);
    const auto idleBefore = Sleeps(idle.Pid());
    const auto visitedBefore = Sleeps(visited.Pid());
    const int pings = phone.AnswerPings(seconds);
    const std::string in = " in " + std::to_string(seconds) + " s, ";
    Row nobody;
    nobody.mName = "gateway: wake-ups" + in + "no phone";
    nobody.mValue = Single(SleepsSince(idle.Pid(), idleBefore));
    nobody.mBudget = Budget{Budget::Kind::AtMost, 0, 1, true};
    Row silent;
    silent.mName = "gateway: wake-ups" + in + "a silent phone, " + std::to_string(pings) + " pings";
    silent.mValue = Single(SleepsSince(visited.Pid(), visitedBefore));
    // One to ask, and one for the answer.
    silent.mBudget = Budget{Budget::Kind::AtMost, 2.0 * pings, 1, true};
    return {nobody, silent};
}

std::vector<Row> Missing()
{
    Row row;
    row.mName = "gateway";
    row.mMissing = kMissing;
    return {row};
}

} // namespace

std::vector<Row> MeasureGatewayTrips(const Setting &setting)
{
    if (setting.mGateway.empty()) {
        return Missing();
    }
    const Gateway gateway(setting);
    const SoupServer echo(setting, gateway);
    const int rounds = setting.mIsQuick ? 51 : 201;
    return {CompareTrips(gateway, echo, false, rounds), CompareTrips(gateway, echo, true, rounds)};
}

std::vector<Row> MeasureGatewayFootprint(const Setting &setting)
{
    if (setting.mGateway.empty()) {
        return Missing();
    }
    std::vector<Row> rows = {MeasureMemoryAboveSoup(setting)};
    for (const auto &measure : {MeasureGrowth, MeasureGatewayWakeUps}) {
        const std::vector<Row> more = measure(setting);
        rows.insert(rows.end(), more.begin(), more.end());
    }
    return rows;
}

} // namespace ParvaneBench
