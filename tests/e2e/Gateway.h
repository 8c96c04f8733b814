#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "Process.h"
#include "WebTarget.h"

/** The real gateway of one watch, on a free port of the loopback address, over TLS. */
class Gateway
{
public:
    /** @param watch  the folder with the service's sockets, which may come later */
    Gateway(const std::string &program, const std::filesystem::path &watch);

    /**
     * The one of the watch with that folder, where PARVANE_TEST_GATEWAY names the program: for as long as no other folder
     * is asked for. Null where it names none.
     */
    static const Gateway *Of(const std::filesystem::path &watch);

    /** Where it is, with a token that counts. */
    const ParvaneHost::WebTarget &Target() const { return mTarget; }

private:
    std::string OutputOf(const std::vector<std::string> &arguments) const;

    TemporaryFolder mFolder;
    std::string mProgram;
    std::string mFile;
    std::unique_ptr<Process> mProcess;
    ParvaneHost::WebTarget mTarget;
};
