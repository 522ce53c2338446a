// Two nets of one model, layer by layer, in one run of the program.
#pragma once

#include <string>
#include <vector>

#include "net_run.h"

namespace tool {

struct NetComparison {
    struct Row {
        int id = 0;
        std::string type;
        std::string rule_operator;
        std::string table_operator;
        double rule_ms = 0.0;
        double table_ms = 0.0;
    };
    std::vector<Row> rows;  ///< medians
    double rule_ms = 0.0;   ///< medians of whole runs without a watch on the layers
    double table_ms = 0.0;
    int runs = 0;
};

/// Runs nets of one model on the same pools until those have stopped growing, at least so many
/// times, at most five seconds.
void settle(const std::vector<const RunnableNet*>& nets, const std::vector<NetInput>& inputs,
            int at_least, MeteredPools& pools);

/// Runs both nets in turns, so that what else the machine does hits both; on the same pools, until
/// those have stopped growing and `warmup` times before the time counts. Throws CommandError when
/// the pools reach their limit.
NetComparison compare_nets(const RunnableNet& by_rule, const RunnableNet& by_table,
                           const std::vector<NetInput>& inputs, int warmup, int runs,
                           MeteredPools& pools);

void print_comparison(const NetComparison& comparison, bool json);

}  // namespace tool
