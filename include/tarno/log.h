// Log channels, log sink and assertion handler of the library: namespace Tarno.
#pragma once

#include "platform/tn_core.h"
