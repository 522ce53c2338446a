// The model reader: ZQNetLoader, the layer records, GetModelVersion.
#pragma once

#include "crossplatform/src/common/src/crossplatform_zqnetloader.h"
#include "crossplatform/src/version/version.h"
