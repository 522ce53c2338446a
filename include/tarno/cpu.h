// The CPU engine: namespace TarnoCPU.
//
// Read a model with ZQNetLoader (<tarno/model.h>), build a TarnoNet from it, and for each frame make
// an extractor, hand it the inputs and extract the layer that you want.
#pragma once

#include "cpu/allocator.h"
#include "cpu/blob.h"
#include "cpu/configprinter.h"
#include "cpu/layer.h"
#include "cpu/mat.h"
#include "cpu/modelbin.h"
#include "cpu/operator.h"
#include "cpu/operator_creators.h"
#include "cpu/operator_registry.h"
#include "cpu/option.h"
#include "cpu/paramdict.h"
#include "cpu/quantitation.h"
#include "cpu/resize.h"
#include "cpu/statistician.h"
#include "cpu/tarnonet.h"
#include "cpu/tn_detectcpu_x86.h"
#include "cpu/transform.h"
