#include <string>
#include <utility>

#include "modelkit/onnx/evaluator_operators.h"

namespace modelkit::onnx::evaluation {

namespace {

/// A matrix inside a block of numbers.
struct Matrix {
    const double* data;
    int64_t rows;
    int64_t columns;
    int64_t row_stride;
    int64_t column_stride;
};

// to[i][j] += sum over k of a[i][k] * b[k][j].
void add_product(const Matrix& a, const Matrix& b, double* to) {
    for (int64_t i = 0; i < a.rows; ++i) {
        for (int64_t k = 0; k < a.columns; ++k) {
            const double factor = a.data[i * a.row_stride + k * a.column_stride];
            const double* row = b.data + k * b.row_stride;
            for (int64_t j = 0; j < b.columns; ++j)
                to[i * b.columns + j] += factor * row[j * b.column_stride];
        }
    }
}

Matrix matrix_of(const Call& call, size_t index, const double* data, bool transposed) {
    const Dims& dims = call.input(index).dims;
    if (dims.size() != 2) {
        call.refuse("input " + std::to_string(index) + " has shape " + text_of(dims) +
                    ", expected a matrix");
    }
    if (transposed) return {data, dims[1], dims[0], 1, dims[1]};
    return {data, dims[0], dims[1], dims[1], 1};
}

}  // namespace

// Y = alpha * A' * B' + beta * C.
void gemm(Call& call) {
    const Numbers numbers_a(call.real(0));
    const Numbers numbers_b(call.real(1));
    const Matrix a = matrix_of(call, 0, numbers_a.data(), call.node.integer("transA", 0) != 0);
    const Matrix b = matrix_of(call, 1, numbers_b.data(), call.node.integer("transB", 0) != 0);
    if (a.columns != b.rows) {
        call.refuse("shapes " + text_of(call.input(0).dims) + " and " +
                    text_of(call.input(1).dims) + " do not multiply");
    }
    const Dims dims = {a.rows, b.columns};
    std::vector<double> y = call.room<double>(dims);
    call.spend(product(call, {a.rows, a.columns, b.columns}));
    if (!y.empty()) add_product(a, b, y.data());
    const double alpha = call.node.number("alpha", 1);
    for (double& value : y) value *= alpha;
    if (call.has(2)) {
        const Tensor& c = call.real(2);
        if (broadcast(call, c.dims, dims) != dims) {
            call.refuse("input 2 has shape " + text_of(c.dims) + ", expected at most " +
                        text_of(dims));
        }
        const double beta = call.node.number("beta", 1);
        const Numbers addends(c);
        size_t next = 0;
        walk<1>(dims, {broadcast_strides(c.dims, dims)}, [&](const std::array<int64_t, 1>& at) {
            y[next++] += beta * addends[static_cast<size_t>(at[0])];
        });
    }
    call.give(dims, std::move(y));
}

// Stacks of matrices broadcast; a vector on the left is a row, one on the right a column, and the
// result does not keep that axis.
void matmul(Call& call) {
    const Tensor& x = call.real(0);
    const Tensor& w = call.real(1);
    Dims a = x.dims;
    Dims b = w.dims;
    call.require(!a.empty() && !b.empty(), "an input is a scalar");
    const bool row = a.size() == 1;
    const bool column = b.size() == 1;
    if (row) a.insert(a.begin(), 1);
    if (column) b.push_back(1);
    const int64_t rows = a[a.size() - 2];
    const int64_t shared = a.back();
    const int64_t columns = b.back();
    if (shared != b[b.size() - 2]) {
        call.refuse("shapes " + text_of(x.dims) + " and " + text_of(w.dims) + " do not multiply");
    }
    const Dims stack_a(a.begin(), a.end() - 2);
    const Dims stack_b(b.begin(), b.end() - 2);
    const Dims stack = broadcast(call, stack_a, stack_b);
    Dims dims = stack;
    if (!row) dims.push_back(rows);
    if (!column) dims.push_back(columns);
    std::vector<double> y = call.room<double>(dims);
    call.spend(product(call, {static_cast<int64_t>(y.size()), shared}));
    const Numbers numbers_a(x);
    const Numbers numbers_b(w);
    double* to = y.data();
    if (!y.empty()) {
        walk<2>(stack, {broadcast_strides(stack_a, stack), broadcast_strides(stack_b, stack)},
                [&](const std::array<int64_t, 2>& at) {
                    add_product(
                        {numbers_a.data() + at[0] * rows * shared, rows, shared, shared, 1},
                        {numbers_b.data() + at[1] * shared * columns, shared, columns, columns, 1},
                        to);
                    to += rows * columns;
                });
    }
    call.give(dims, std::move(y));
}

}  // namespace modelkit::onnx::evaluation
