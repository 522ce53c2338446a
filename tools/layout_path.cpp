#include "layout_path.h"

#include <algorithm>
#include <map>
#include <string>

namespace tool {
namespace {

// Layouts of the tensors that are alive, in the order of their blobs: 'p' planes, 'f' fours.
using Node = std::string;

char letter(Packing packing) {
    return packing == Packing::planes ? 'p' : 'f';
}

struct Reached {
    double cost;
    Node from;
    size_t way;
};

// Ten tensors alive at once, each in either layout. Beyond that the dearest nodes go, but for the
// one with all tensors in planes: there is always a way on from it.
constexpr size_t most_nodes = 1024;

using Step = std::map<Node, Reached>;

void keep_cheapest(Step& step) {
    if (step.size() <= most_nodes) return;
    std::vector<double> costs;
    for (const auto& node : step) costs.push_back(node.second.cost);
    std::nth_element(costs.begin(), costs.begin() + most_nodes, costs.end());
    const double limit = costs[most_nodes];
    for (auto it = step.begin(); it != step.end();) {
        const bool all_planes = it->first.find('f') == Node::npos;
        it = it->second.cost > limit && !all_planes ? step.erase(it) : std::next(it);
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
    steps[0][Node()] = {0.0, {}, 0};
    std::vector<int> alive;  // blobs, in the order of a node's letters
    for (size_t i = 0; i < layers.size(); ++i) {
        const PathLayer& layer = layers[i];
        const bool top_is_read = read[static_cast<size_t>(layer.top)];
        std::vector<size_t> bottoms;  // places in the node
        for (const int blob : layer.bottoms) {
            const auto place = std::find(alive.begin(), alive.end(), blob);
            if (place == alive.end()) return {};  // reads what nobody made
            bottoms.push_back(static_cast<size_t>(place - alive.begin()));
        }
        std::vector<int> next_alive;
        std::vector<size_t> kept;
        for (size_t k = 0; k < alive.size(); ++k) {
            if (alive[k] == layer.top || last_reader[static_cast<size_t>(alive[k])] <= i) continue;
            next_alive.push_back(alive[k]);
            kept.push_back(k);
        }
        if (top_is_read) next_alive.push_back(layer.top);

        for (const auto& entry : steps[i]) {
            const Node& node = entry.first;
            for (size_t w = 0; w < layer.ways.size(); ++w) {
                const PathLayer::Way& way = layer.ways[w];
                const bool open = std::all_of(bottoms.begin(), bottoms.end(), [&](size_t place) {
                    return node[place] == letter(way.in);
                });
                if (!open || (!top_is_read && way.out != Packing::planes)) continue;
                Node next;
                for (const size_t k : kept) next += node[k];
                if (top_is_read) next += letter(way.out);
                const double cost = entry.second.cost + way.cost;
                const auto found = steps[i + 1].find(next);
                if (found == steps[i + 1].end() || cost < found->second.cost) {
                    steps[i + 1][next] = {cost, node, w};
                }
            }
        }
        keep_cheapest(steps[i + 1]);
        if (steps[i + 1].empty()) return {};
        alive = next_alive;
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
