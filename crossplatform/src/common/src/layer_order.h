// What follows from which layer reads which: an execution order and how often each layer is read.
#pragma once

#include <map>
#include <vector>

#include "crossplatform/src/common/src/zqlayerinfo.h"

/// Overwrites the front of `sequential_layers` with an order in which each layer stands behind all
/// that it reads. Layers without any connection are in no order: what stood in the tail stays
/// there. Ids that are read and have no record take part; what exceeds the vector is dropped.
void sort_layers_by_dependency(const std::map<unsigned short, ZQLayerInfo*>& layers_info,
                               std::vector<unsigned short>& sequential_layers);

/// For each id of `sequential_layers` adds to `layers_rcnt` how many bottoms, of all records but
/// the one at the id's own place in the order, name it. An id that is there already keeps its
/// count. Throws std::out_of_range, with the text "invalid map<K, T> key", for an id without a
/// record.
void count_reads(const std::map<unsigned short, ZQLayerInfo*>& layers_info,
                 const std::vector<unsigned short>& sequential_layers,
                 std::map<unsigned short, unsigned short>& layers_rcnt);
