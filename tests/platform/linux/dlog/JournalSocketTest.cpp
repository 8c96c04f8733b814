#include "JournalSocket.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

using Parvane::JournalSocket;

/** A socket in the journal's place. */
class JournalSocketTest : public testing::Test
{
protected:
    void Listen()
    {
        mListener.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, mPath.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(
            bind(mListener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }

    /** The next entry's datagram; `attached` takes the descriptor that came along. */
    std::string Receive(Parvane::UniqueFd &attached) const
    {
        char text[512];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        iovec content = {text, sizeof text};
        msghdr message = {};
        message.msg_iov = &content;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t size = recvmsg(mListener.Get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (size < 0) {
            return "nothing";
        }
        if (const cmsghdr *header = CMSG_FIRSTHDR(&message); header != nullptr) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
            attached.Reset(fd);
        }
        return {text, static_cast<std::size_t>(size)};
    }

    TemporaryDirectory mDirectory;
    std::string mPath = mDirectory / "journal";
    Parvane::UniqueFd mListener;
    JournalSocket mJournal{mPath.c_str()};
};

TEST_F(JournalSocketTest, EntryIsOneDatagram)
{
    Listen();
    EXPECT_EQ(mJournal.Send("PRIORITY=4\nMESSAGE=text\n"), 0);
    Parvane::UniqueFd attached;
    EXPECT_EQ(Receive(attached), "PRIORITY=4\nMESSAGE=text\n");
    EXPECT_FALSE(attached);
}

TEST_F(JournalSocketTest, EntryThatIsTooLongComesAsASealedFile)
{
    Listen();
    const std::string entry = "MESSAGE=" + std::string(1'000'000, 'x') + "\n";
    EXPECT_EQ(mJournal.Send(entry), 0);
    Parvane::UniqueFd attached;
    EXPECT_EQ(Receive(attached), "");
    ASSERT_TRUE(attached);
    std::string content(entry.size() + 1, '\0');
    EXPECT_EQ(pread(attached.Get(), content.data(), content.size(), 0),
              static_cast<ssize_t>(entry.size()));
    content.resize(entry.size());
    EXPECT_TRUE(content == entry);
    EXPECT_EQ(fcntl(attached.Get(), F_GET_SEALS),
              F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
}

TEST_F(JournalSocketTest, MissingJournalIsTriedAgainWithEachEntry)
{
    EXPECT_EQ(mJournal.Send("MESSAGE=a\n"), -ENOENT);
    Listen();
    EXPECT_EQ(mJournal.Send("MESSAGE=b\n"), 0);
    mListener.Reset();
    EXPECT_EQ(mJournal.Send("MESSAGE=c\n"), -ECONNREFUSED);
}

TEST_F(JournalSocketTest, JournalThatDoesNotReadHoldsNothingUp)
{
    Listen();
    int taken = 0;
    while (mJournal.Send("MESSAGE=a\n") == 0) {
        ++taken;
    }
    EXPECT_GT(taken, 0);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(mJournal.Send("MESSAGE=b\n"), -EAGAIN);
    }
    // A thousand waits would take ten seconds.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));

    Parvane::UniqueFd attached;
    EXPECT_EQ(Receive(attached), "MESSAGE=a\n");
    EXPECT_EQ(mJournal.Send("MESSAGE=c\n"), 0);
}

} // namespace ParvanePlatform
