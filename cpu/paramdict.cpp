#include "cpu/paramdict.h"

namespace TarnoCPU {
namespace {

bool in_range(int id) {
    return id >= 0 && id < ParamDict::entry_count;
}

}  // namespace

ParamDict::ParamDict() {
    clear();
}

void ParamDict::clear() {
    for (Entry& entry : entries) {
        entry.loaded = 0;
        entry.i = 0;
        entry.v = Mat();
    }
}

int ParamDict::get(int id, int def) const {
    return in_range(id) && entries[id].loaded != 0 ? entries[id].i : def;
}

float ParamDict::get(int id, float def) const {
    return in_range(id) && entries[id].loaded != 0 ? entries[id].f : def;
}

Mat ParamDict::get(int id, const Mat& def) const {
    return in_range(id) && entries[id].loaded != 0 ? entries[id].v : def;
}

void ParamDict::set(int id, int value) {
    if (!in_range(id)) return;
    entries[id].loaded = 1;
    entries[id].i = value;
}

void ParamDict::set(int id, float value) {
    if (!in_range(id)) return;
    entries[id].loaded = 1;
    entries[id].f = value;
}

void ParamDict::set(int id, const Mat& value) {
    if (!in_range(id)) return;
    entries[id].loaded = 1;
    entries[id].v = value;
}

}  // namespace TarnoCPU
