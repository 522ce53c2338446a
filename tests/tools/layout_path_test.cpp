// The path through layers and layouts against trying every combination.
#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <vector>

#include "../../tools/layout_path.h"

namespace {

using tool::Packing;
using tool::PathLayer;

/// The cost of one combination of ways, infinite when the layouts do not meet.
double cost_of(const std::vector<PathLayer>& layers, const std::vector<size_t>& ways,
               size_t blob_count) {
    std::vector<Packing> layout(blob_count, Packing::planes);
    std::vector<bool> read(blob_count, false);
    for (const PathLayer& layer : layers)
        for (const int b : layer.bottoms) read[static_cast<size_t>(b)] = true;
    double cost = 0.0;
    for (size_t i = 0; i < layers.size(); ++i) {
        const PathLayer::Way& way = layers[i].ways[ways[i]];
        for (const int b : layers[i].bottoms) {
            if (layout[static_cast<size_t>(b)] != way.in)
                return std::numeric_limits<double>::infinity();
        }
        const size_t top = static_cast<size_t>(layers[i].top);
        if (!read[top] && way.out != Packing::planes)
            return std::numeric_limits<double>::infinity();
        layout[top] = way.out;
        cost += way.cost;
    }
    return cost;
}

double cheapest_by_trying_all(const std::vector<PathLayer>& layers, size_t blob_count) {
    std::vector<size_t> ways(layers.size(), 0);
    double best = std::numeric_limits<double>::infinity();
    while (true) {
        best = std::min(best, cost_of(layers, ways, blob_count));
        size_t i = 0;
        while (i < layers.size() && ++ways[i] == layers[i].ways.size()) ways[i++] = 0;
        if (i == layers.size()) return best;
    }
}

TEST(LayoutPath, IsTheCheapestOfAllCombinationsOnRandomGraphsWithBranches) {
    std::mt19937 engine(7);
    const auto number = [&](unsigned int below) { return static_cast<int>(engine() % below); };
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        const size_t count = 2 + static_cast<size_t>(number(8));
        std::vector<PathLayer> layers(count);
        layers[0].top = 0;
        layers[0].ways = {{Packing::planes, Packing::planes, 0.0}};
        for (size_t i = 1; i < count; ++i) {
            layers[i].top = static_cast<int>(i);
            const int bottoms = 1 + number(2);
            for (int k = 0; k < bottoms; ++k)
                layers[i].bottoms.push_back(number(static_cast<unsigned int>(i)));
            // Always one way from planes to planes; others by chance.
            layers[i].ways.push_back({Packing::planes, Packing::planes, 1.0 + number(100)});
            for (const Packing in : {Packing::planes, Packing::fours}) {
                for (const Packing out : {Packing::planes, Packing::fours}) {
                    if (number(2) == 0) layers[i].ways.push_back({in, out, 1.0 + number(100)});
                }
            }
        }
        const std::vector<size_t> path = tool::cheapest_path(layers, count);
        ASSERT_EQ(count, path.size());
        EXPECT_EQ(cheapest_by_trying_all(layers, count), cost_of(layers, path, count));
    }
}

TEST(LayoutPath, AGreedyChoiceWouldBeDearer) {
    // The first layer's fastest way leaves fours, which only a slow way takes on.
    std::vector<PathLayer> layers(3);
    layers[0] = {{}, 0, {{Packing::planes, Packing::planes, 0.0}}};
    layers[1] = {
        {0}, 1, {{Packing::planes, Packing::fours, 1.0}, {Packing::planes, Packing::planes, 2.0}}};
    layers[2] = {
        {1}, 2, {{Packing::fours, Packing::planes, 9.0}, {Packing::planes, Packing::planes, 3.0}}};
    EXPECT_EQ((std::vector<size_t>{0, 1, 1}), tool::cheapest_path(layers, 3));
}

TEST(LayoutPath, ResultsArePlanes) {
    std::vector<PathLayer> layers(2);
    layers[0] = {{}, 0, {{Packing::planes, Packing::planes, 0.0}}};
    layers[1] = {
        {0}, 1, {{Packing::planes, Packing::fours, 1.0}, {Packing::planes, Packing::planes, 5.0}}};
    EXPECT_EQ((std::vector<size_t>{0, 1}), tool::cheapest_path(layers, 2));
    layers[1].ways.pop_back();
    EXPECT_TRUE(tool::cheapest_path(layers, 2).empty());
}

}  // namespace
