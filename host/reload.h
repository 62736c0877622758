// Reading the configuration again while the daemon runs.
#pragma once
#include "host/config.h"

namespace ds::host {

// Takes what a running daemon can take of its configuration file: the keys that say so in
// config_keys.cpp, the limits of single users and the rules. Says on stdout that it was done, and
// on stderr which changed keys need a restart. A file with errors changes nothing: they are all
// told on stderr, and the result is false.
bool reload_policy(Config &config);

} // namespace ds::host
