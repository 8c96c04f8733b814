#include "Certificate.h"

#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeWatch.h"
#include "Fingerprint.h"
#include "PrivateFile.h"

namespace ParvaneGateway {
namespace {

class CertificateTest : public ::testing::Test
{
protected:
    Parvane::ObjectPtr<GTlsCertificate> Load(bool mayMake)
    {
        return LoadCertificate(mCertificate, mKey, {"localhost", "127.0.0.1", "::1"}, mayMake);
    }

    TestFolder mFolder;
    std::string mCertificate = mFolder.Path("certificate.pem");
    std::string mKey = mFolder.Path("key.pem");
};

TEST(CertificateEndTest, IsInTenYearsOrAtTheLastTimeOfAClockOf32Bits)
{
    constexpr std::int64_t kLatest = 2147483647;
    EXPECT_EQ(CertificateEnd(1800000000, kLatest), 1800000000 + 3650 * std::int64_t{86400});
    EXPECT_EQ(CertificateEnd(1900000000, kLatest), kLatest);
}

TEST_F(CertificateTest, IsMadeOnceWithAKeyForItsOwnerAlone)
{
    const std::string fingerprint = Parvane::FingerprintOf(Load(true).get());
    EXPECT_THAT(fingerprint, ::testing::MatchesRegex("([0-9A-F][0-9A-F]:)+[0-9A-F][0-9A-F]"));
    EXPECT_EQ(fingerprint.size(), 95U);
    EXPECT_EQ(Parvane::FingerprintOf(Load(false).get()), fingerprint);
    struct stat status
    {};
    ASSERT_EQ(::stat(mKey.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(CertificateTest, CountsForTheNamesAndAddresses)
{
    const auto certificate = Load(true);
    const auto flagsFor = [&certificate](const char *name) {
        const Parvane::ObjectPtr<GSocketConnectable> identity(g_network_address_new(name, 1));
        return g_tls_certificate_verify(certificate.get(), identity.get(), certificate.get());
    };
    EXPECT_EQ(flagsFor("localhost"), 0);
    EXPECT_EQ(flagsFor("127.0.0.1"), 0);
    EXPECT_EQ(flagsFor("::1"), 0);
    EXPECT_EQ(flagsFor("elsewhere.example"), G_TLS_CERTIFICATE_BAD_IDENTITY);
}

TEST_F(CertificateTest, AMissingOrWrongFileIsAnError)
{
    EXPECT_THROW(Load(false), std::runtime_error);
    Load(true);
    ReplacePrivateFile(mKey, "no key");
    EXPECT_THROW(Load(true), std::runtime_error);
    ASSERT_EQ(::unlink(mKey.c_str()), 0);
    EXPECT_THROW(Load(true), std::runtime_error); // a certificate alone is not replaced
}

} // namespace
} // namespace ParvaneGateway
