// The operators that the evaluator knows, by group. Part of the evaluator.
#pragma once

#include "modelkit/onnx/evaluator_call.h"

namespace modelkit::onnx::evaluation {

// evaluator_convolution.cpp
void conv(Call& call);
void conv_transpose(Call& call);

// evaluator_pooling.cpp
void max_pool(Call& call);
void average_pool(Call& call);
void global_max_pool(Call& call);
void global_average_pool(Call& call);
void reduce_mean(Call& call);

// evaluator_elementwise.cpp: one input
void abs(Call& call);
void neg(Call& call);
void relu(Call& call);
void floor(Call& call);
void ceil(Call& call);
void sqrt(Call& call);
void exp(Call& call);
void log(Call& call);
void reciprocal(Call& call);
void sigmoid(Call& call);
void tanh(Call& call);
void hard_sigmoid(Call& call);
void hard_swish(Call& call);
void elu(Call& call);
void leaky_relu(Call& call);
void clip_by_attributes(Call& call);
void clip(Call& call);
void cast(Call& call);
void logical_not(Call& call);

// evaluator_arithmetic.cpp: several inputs, broadcast
void add(Call& call);
void sub(Call& call);
void mul(Call& call);
void div(Call& call);
void pow(Call& call);
void min(Call& call);
void max(Call& call);
void sum(Call& call);
void prelu(Call& call);
void equal(Call& call);
void greater(Call& call);
void less(Call& call);
void logical_and(Call& call);
void logical_or(Call& call);
void where(Call& call);

// evaluator_normalization.cpp
void batch_normalization(Call& call);
void instance_normalization(Call& call);
void softmax_of_rows(Call& call);
void softmax(Call& call);

// evaluator_matrix.cpp
void gemm(Call& call);
void matmul(Call& call);

// evaluator_resize.cpp
void upsample_by_attribute(Call& call);
void upsample(Call& call);
void resize_by_scales(Call& call);
void resize(Call& call);
void depth_to_space(Call& call);
void space_to_depth(Call& call);

// evaluator_lstm.cpp
void lstm(Call& call);

// evaluator_shape.cpp
void identity(Call& call);
void dropout(Call& call);
void constant(Call& call);
void constant_of_shape(Call& call);
void shape(Call& call);
void size(Call& call);
void reshape(Call& call);
void flatten(Call& call);
void squeeze_by_attribute(Call& call);
void squeeze(Call& call);
void unsqueeze_by_attribute(Call& call);
void unsqueeze(Call& call);
void transpose(Call& call);
void concat(Call& call);
void split_by_attribute(Call& call);
void split(Call& call);
void slice_by_attributes(Call& call);
void slice(Call& call);
void gather(Call& call);
void expand(Call& call);
void pad_by_attributes(Call& call);
void pad(Call& call);

}  // namespace modelkit::onnx::evaluation
