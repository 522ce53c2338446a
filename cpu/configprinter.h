// Prints the tuning table of a run as source text.
#pragma once

#include <sstream>
#include <string>

#include "../platform/export.h"
#include "statistician.h"

namespace TarnoCPU {

/// Attached to a run, writes one line for each layer: the factory of the operator that ran, its
/// fixed-point positions, and a comment with the layer's sizes. With header and tail the text is a
/// `model_inference_config` table that compiles into a host and goes back into
/// `TarnoNet::load_tarno_net_with_inference_config`.
///
/// Use: `add_header`, a run with the printer as the third argument of `extract`, `add_tail`,
/// `get_config_string`.
class TN_API ConfigPrinter : public Statistician {
public:
    ConfigPrinter();
    ~ConfigPrinter() override;

    void add_header();
    void add_tail();
    void layer_stats(const Layer* layer, const Mat& bottom, Mat& top, double t_before,
                     double t_after) override;
    /// All that was written so far.
    std::string get_config_string() const;

private:
    int index;
    int last_model_id;
    std::stringstream stream;
};

}  // namespace TarnoCPU
