// A stand for timing what surrounds the layers of a net: the way to an operator and its generator.
#pragma once

#include <memory>

#include "types.h"

namespace tesk {

class BenchmarkNetImpl;
class ComputeProgramManager;
class TexturePool;

/// Operators that do nothing, one for each `setupNet`. There is no timer here: a client's own reads
/// around `forward`. Copies share one net.
class TN_API BenchmarkNet {
public:
    BenchmarkNet();
    BenchmarkNet(const BenchmarkNet& other);
    BenchmarkNet& operator=(const BenchmarkNet& other);
    ~BenchmarkNet();

    /// Loads the GL entry points the first time, then appends one operator. Needs a context
    /// current. The pool is not used. False in every case, which says nothing.
    bool setupNet(tesk::TexturePool* pool, tesk::ComputeProgramManager* manager);
    /// Runs all operators, each without images.
    void forward();

    int operatorCount() const;

private:
    std::shared_ptr<BenchmarkNetImpl> _impl;
};

}  // namespace tesk
