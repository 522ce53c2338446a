#include "layer_judgement.h"

#include <cmath>

namespace tool {

Judgement judge(const EnginePair& pair, const std::vector<float>& bound) {
    Judgement judgement;
    for (size_t i = 0; i < bound.size(); ++i) {
        const double most = static_cast<double>(bound[i]);
        if (!std::isfinite(most)) {
            if (judgement.unbounded++ == 0) judgement.first_unbounded = i;
            continue;
        }
        const double difference = element_difference(pair.cpu[i], pair.gpu[i]);
        const double share = difference == 0.0 ? 0.0 : difference / most;
        if (share <= judgement.share_of_bound) continue;
        judgement.share_of_bound = share;
        judgement.worst = i;
        judgement.worst_difference = difference;
        judgement.worst_bound = most;
    }
    return judgement;
}

}  // namespace tool
