#include "MockedSysfs.h"

#include <umockdev.h>

namespace {

std::string SysfsPath(const std::string &device)
{
    return "/sys/devices/" + device;
}

struct GFree
{
    void operator()(gchar *text) const noexcept { g_free(text); }
};

using GText = std::unique_ptr<gchar, GFree>;

} // namespace

struct MockedSysfs::TestBed
{
    TestBed() = default;
    TestBed(const TestBed &) = delete;
    TestBed &operator=(const TestBed &) = delete;
    ~TestBed() { g_object_unref(mBed); }

    UMockdevTestbed *mBed = umockdev_testbed_new();
};

MockedSysfs::MockedSysfs() : mTestBed(std::make_unique<TestBed>()) {}

MockedSysfs::~MockedSysfs() = default;

std::string MockedSysfs::WhyNot()
{
#if defined(__SANITIZE_ADDRESS__)
    return "the address sanitizer lets no other library be loaded before it";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    return "the address sanitizer lets no other library be loaded before it";
#endif
#endif
    return {};
}

Environment MockedSysfs::Variables() const
{
    return {{"LD_PRELOAD", "libumockdev-preload.so.0"}, {"UMOCKDEV_DIR", Root().string()}};
}

void MockedSysfs::AddDevice(const std::string &subsystem, const std::string &name,
                            const Attributes &attributes) const
{
    std::vector<std::string> texts;
    for (const auto &[attribute, value] : attributes) {
        texts.push_back(attribute);
        texts.push_back(value);
    }
    std::vector<gchar *> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string &text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    gchar *noProperties = nullptr;
    const GText path(umockdev_testbed_add_devicev(mTestBed->mBed, subsystem.c_str(), name.c_str(),
                                                  nullptr, pointers.data(), &noProperties));
}

void MockedSysfs::RemoveDevice(const std::string &name) const
{
    umockdev_testbed_remove_device(mTestBed->mBed, SysfsPath(name).c_str());
}

void MockedSysfs::SetAttribute(const std::string &device, const std::string &attribute,
                               const std::string &value) const
{
    umockdev_testbed_set_attribute(mTestBed->mBed, SysfsPath(device).c_str(), attribute.c_str(),
                                   value.c_str());
}

std::string MockedSysfs::Attribute(const std::string &device, const std::string &attribute) const
{
    return ReadFile(Root().string() + SysfsPath(device) + '/' + attribute);
}

std::filesystem::path MockedSysfs::Root() const
{
    const GText root(umockdev_testbed_get_root_dir(mTestBed->mBed));
    return root.get();
}
