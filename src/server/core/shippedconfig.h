// The configuration file as a new installation gets it, put into the program when that is built (cfg/orx.cfg).
#pragma once

namespace orx {

extern const char g_szShippedConfig[];

}  // namespace orx
