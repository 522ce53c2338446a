// Making, filling and comparing the layer records of a model.
#pragma once

#include <tarno/model.h>

#include <memory>
#include <string>
#include <vector>

namespace modelkit {

/// An empty record of a message type; null for a number that is not in use.
std::unique_ptr<ZQLayerInfo> make_record(unsigned int type);

/// Replaces a pair of arrays, and the count beside them, by copies of `patterns`: the halves as
/// they stand and the floats that they mean. No patterns give null arrays. False, with the arrays
/// left empty, when memory is short.
bool assign_halves(unsigned short*& halves, float*& floats, size_t& count,
                   const std::vector<unsigned short>& patterns);

/// The two arrays of a record with weights and bias.
template <typename Record>
bool assign_weights(Record& record, const std::vector<unsigned short>& patterns) {
    return assign_halves(record.weights_half, record.weights, record.weights_count, patterns);
}
template <typename Record>
bool assign_bias(Record& record, const std::vector<unsigned short>& patterns) {
    return assign_halves(record.bias_half, record.bias, record.bias_count, patterns);
}

/// The four arrays of a batch normalisation, each of the same length.
bool assign_batchnorm(ZQLayerInfo_BatchNormalization& record, const std::vector<unsigned short>& a,
                      const std::vector<unsigned short>& b, const std::vector<unsigned short>& c,
                      const std::vector<unsigned short>& d);

/// Replaces the permutation.
bool assign_permutation(ZQLayerInfo_ChannelShuffle& record,
                        const std::vector<unsigned short>& permutation);

/// How many halves an LSTM of the record's sizes has in a file.
size_t lstm_halves_count(const ZQLayerInfo_LSTM& record);
/// Replaces all lists of an LSTM whose sizes and flags are set. `patterns` are
/// `lstm_halves_count(record)` halves in the order of the file; with another number of them the
/// result is false and nothing changes.
bool assign_lstm(ZQLayerInfo_LSTM& record, const std::vector<unsigned short>& patterns);

/// A record taken apart: each member with its numbers, floats as their bit patterns. Lists of
/// arrays give one field for each array.
struct RecordField {
    std::string name;
    std::vector<unsigned int> values;
};
std::vector<RecordField> fields_of(const ZQLayerInfo& record);

/// Empty when two records are of one type and equal in every member and array element; else the
/// name of the first member that differs.
std::string difference(const ZQLayerInfo& a, const ZQLayerInfo& b);

}  // namespace modelkit
