#include "StandardDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace Parvane {

void ReserveStandardDescriptors()
{
    int fd = 0;
    do {
        fd = ::open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        ::close(fd);
    }
}

} // namespace Parvane
