#pragma once

// Everything of the foundations in one include: parsing of settings, clocks, the
// CPU's model name, resource use and the cached thread identity.
#include "zorv/utils/clock.h"
#include "zorv/utils/config_values.h"
#include "zorv/utils/cpuinfo.h"
#include "zorv/utils/identity.h"
#include "zorv/utils/rusage.h"
