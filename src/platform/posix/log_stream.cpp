#include "platform/platform.h"

#include <cstring>

namespace tn::log_stream {

std::FILE *open(const char *path)
{
    if (!path) return stderr;
    if (!std::strcmp(path, "STDOUT")) return stdout;
    if (!std::strcmp(path, "STDERR")) return stderr;
    // Close-on-exec, so that children the host starts do not inherit the log.
    std::FILE *file = std::fopen(path, "we");
    return file ? file : stderr;
}

} // namespace tn::log_stream
