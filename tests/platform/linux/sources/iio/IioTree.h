#pragma once

#include <map>
#include <string>

#include "SensorReading.h"
#include "Settings.h"
#include "TestSupport.h"

namespace ParvanePlatform {

/** A directory with industrial-I/O devices in it, as sysfs has them. */
class IioTree
{
public:
    IioTree();

    /** The settings for this tree. */
    IioSettings Settings(const std::string &device = {}, int periodMs = 1000) const;

    /** The path of a device, or of a file in it. */
    std::string Path(int device, const std::string &file = {}) const;

    /** Makes a device; `files` are names with contents. */
    void Add(int device, const std::map<std::string, std::string> &files) const;

    /**
     * Makes a device the way the kernel does: as a link.
     *
     * @param place  the directory above the real one, below the root
     */
    void Attach(int device, const std::string &place,
                const std::map<std::string, std::string> &files) const;

    void Write(int device, const std::string &file, const std::string &text) const;
    std::string Read(int device, const std::string &file) const;
    void Remove(int device) const;
    void Remove(int device, const std::string &file) const;
    void Renumber(int from, int to) const;

    /** The log lines without what is the same in all of them: the tree's path. */
    std::string Shortened(std::string log) const;

private:
    TemporaryDirectory mRoot;
};

/** A reading as "key=value key=value". */
std::string TextOf(const SensorReading &reading);

} // namespace ParvanePlatform
