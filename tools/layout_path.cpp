#include "layout_path.h"

#include <algorithm>
#include <map>

namespace tool {
namespace {

// Layouts by blob: 'p' planes, 'f' fours, '-' for blobs that are not alive.
using Node = std::vector<char>;

char letter(Packing packing) {
    return packing == Packing::planes ? 'p' : 'f';
}

struct Reached {
    double cost;
    Node from;
    size_t way;
};

// More nodes than that only arise where very many tensors are alive at once: then the dearest go.
constexpr size_t most_nodes = 4096;

using Step = std::map<Node, Reached>;

void keep_cheapest(Step& step) {
    if (step.size() <= most_nodes) return;
    std::vector<double> costs;
    for (const auto& node : step) costs.push_back(node.second.cost);
    std::nth_element(costs.begin(), costs.begin() + most_nodes, costs.end());
    const double limit = costs[most_nodes];
    for (auto it = step.begin(); it != step.end();) {
        it = it->second.cost > limit ? step.erase(it) : std::next(it);
    }
}

}  // namespace

std::vector<size_t> cheapest_path(const std::vector<PathLayer>& layers, size_t blob_count) {
    std::vector<size_t> last_reader(blob_count, 0);
    std::vector<bool> read(blob_count, false);
    for (size_t i = 0; i < layers.size(); ++i) {
        for (const int blob : layers[i].bottoms) {
            last_reader[static_cast<size_t>(blob)] = i;
            read[static_cast<size_t>(blob)] = true;
        }
    }

    std::vector<Step> steps(layers.size() + 1);
    steps[0][Node(blob_count, '-')] = {0.0, {}, 0};
    for (size_t i = 0; i < layers.size(); ++i) {
        const PathLayer& layer = layers[i];
        const size_t top = static_cast<size_t>(layer.top);
        for (const auto& [node, reached] : steps[i]) {
            for (size_t w = 0; w < layer.ways.size(); ++w) {
                const PathLayer::Way& way = layer.ways[w];
                const bool open = std::all_of(
                    layer.bottoms.begin(), layer.bottoms.end(), [&, &from = node](int blob) {
                        return from[static_cast<size_t>(blob)] == letter(way.in);
                    });
                if (!open || (!read[top] && way.out != Packing::planes)) continue;
                Node next = node;
                next[top] = letter(way.out);
                for (const int blob : layer.bottoms) {
                    const size_t b = static_cast<size_t>(blob);
                    if (b != top && last_reader[b] == i) next[b] = '-';
                }
                const double cost = reached.cost + way.cost;
                const auto found = steps[i + 1].find(next);
                if (found == steps[i + 1].end() || cost < found->second.cost) {
                    steps[i + 1][next] = {cost, node, w};
                }
            }
        }
        keep_cheapest(steps[i + 1]);
        if (steps[i + 1].empty()) return {};
    }

    const auto end = std::min_element(
        steps.back().begin(), steps.back().end(),
        [](const auto& a, const auto& b) { return a.second.cost < b.second.cost; });
    std::vector<size_t> ways(layers.size());
    Node node = end->first;
    for (size_t i = layers.size(); i > 0; --i) {
        const Reached& reached = steps[i].at(node);
        ways[i - 1] = reached.way;
        node = reached.from;
    }
    return ways;
}

}  // namespace tool
