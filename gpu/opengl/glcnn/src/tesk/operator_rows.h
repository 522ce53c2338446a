// What is known of an operator by its type code alone.
#pragma once

namespace tesk {

struct OperatorRow {
    int recordType;    ///< of the layers it takes; -1 for none
    const char* name;  ///< with the layer's id as %d, or as it stands; null for none
    const char* time;  ///< the word of the timing line; null for none
    const char* dump;  ///< the end of a dump's file name; null for none
};

/// Null for a code that is not in use: below 0 or above 28.
const OperatorRow* operatorRow(int typeCode);

}  // namespace tesk
