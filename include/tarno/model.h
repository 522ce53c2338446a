// The model reader: ZQNetLoader, the layer records, half floats, GetModelVersion.
#pragma once

#include "crossplatform/src/common/src/crossplatform_zqnetloader.h"
#include "crossplatform/src/common/src/half_float.h"
#include "crossplatform/src/version/version.h"
