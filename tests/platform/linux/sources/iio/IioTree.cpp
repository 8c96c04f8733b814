#include "IioTree.h"

#include <filesystem>
#include <sstream>
#include <variant>

#include <gtest/gtest.h>

namespace ParvanePlatform {

namespace {

constexpr char kDevices[] = "/bus/iio/devices";

} // namespace

IioTree::IioTree()
{
    std::filesystem::create_directories(mRoot.Path() + kDevices);
}

IioSettings IioTree::Settings(const std::string &device, int periodMs) const
{
    return {mRoot.Path(), device, periodMs};
}

std::string IioTree::Path(int device, const std::string &file) const
{
    const std::string path = mRoot.Path() + kDevices + "/iio:device" + std::to_string(device);
    return file.empty() ? path : path + '/' + file;
}

void IioTree::Add(int device, const std::map<std::string, std::string> &files) const
{
    std::filesystem::create_directory(Path(device));
    for (const auto &[file, text] : files) {
        Write(device, file, text);
    }
}

void IioTree::Attach(int device, const std::string &place,
                     const std::map<std::string, std::string> &files) const
{
    const std::string real = mRoot.Path() + '/' + place + "/iio:device" + std::to_string(device);
    std::filesystem::create_directories(real);
    std::filesystem::create_directory_symlink(real, Path(device));
    for (const auto &[file, text] : files) {
        Write(device, file, text);
    }
}

void IioTree::Write(int device, const std::string &file, const std::string &text) const
{
    WriteFile(Path(device, file), text);
}

std::string IioTree::Read(int device, const std::string &file) const
{
    return ReadFile(Path(device, file));
}

void IioTree::Remove(int device) const
{
    EXPECT_GT(std::filesystem::remove_all(Path(device)), 0U);
}

void IioTree::Remove(int device, const std::string &file) const
{
    EXPECT_TRUE(std::filesystem::remove(Path(device, file)));
}

void IioTree::Renumber(int from, int to) const
{
    std::filesystem::rename(Path(from), Path(to));
}

std::string IioTree::Shortened(std::string log) const
{
    const std::string common = mRoot.Path() + kDevices + '/';
    for (std::size_t at = log.find(common); at != std::string::npos; at = log.find(common)) {
        log.erase(at, common.size());
    }
    return log;
}

std::string TextOf(const SensorReading &reading)
{
    std::ostringstream text;
    for (const SensorValue &value : reading) {
        text << (&value == reading.begin() ? "" : " ") << value.mKey << '=';
        std::visit([&text](auto number) { text << number; }, value.mValue);
    }
    return text.str();
}

} // namespace ParvanePlatform
