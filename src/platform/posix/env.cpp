#include <tarnel_util/tn_log.h>

#include <cstdlib>

const char *tn_env_get(const char *name) { return std::getenv(name); }
