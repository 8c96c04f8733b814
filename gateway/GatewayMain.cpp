#include <exception>
#include <string>
#include <string_view>
#include <unistd.h>

#include "Gateway.h"
#include "Log.h"
#include "Output.h"
#include "Settings.h"
#include "Signals.h"
#include "StandardDescriptors.h"

int main(int argc, char **argv)
{
    Parvane::ReserveStandardDescriptors();
    if (argc > 1 && std::string_view(argv[1]) == "--version") {
        Parvane::WriteAll(STDOUT_FILENO,
                          "parvane-gateway " + std::string(PARVANE_GATEWAY_VERSION) + '\n');
        return 0;
    }
    try {
        const Parvane::Signals signals;
        ParvaneGateway::Gateway(ParvaneGateway::Settings{}, signals).Run();
        return 0;
    } catch (const std::exception &failure) {
        ParvaneGateway::LogError(failure.what());
        return 1;
    }
}
