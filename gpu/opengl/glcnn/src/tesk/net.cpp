#include "net.h"

#include <algorithm>
#include <cmath>

#include "compute_program_manager.h"
#include "crossplatform/src/common/src/crossplatform_zqnetloader.h"
#include "crossplatform/src/common/src/half_float.h"
#include "glutil/gl.h"
#include "glutil/texture_pool.h"
#include "layers/create_operator.h"
#include "operator.h"
#include "platform/assertion.h"
#include "tricks/tricks.h"

namespace tesk {

class NetImpl {
public:
    bool setup(tesk::TexturePool* pool, tesk::ComputeProgramManager* manager);
    void addReads(size_t begin, size_t end);
    void run(size_t begin, size_t end);
    void clear();

    std::vector<std::vector<int>> _bottom_index_vecs;
    std::vector<std::vector<int>> _top_index_vecs;
    std::vector<int> _image_ids;
    std::vector<std::shared_ptr<tesk::Operator>> _ops;
    std::vector<std::shared_ptr<tesk::Image>> _features;
    std::vector<std::vector<std::shared_ptr<tesk::Image>>> _inputs;
    std::vector<std::vector<std::shared_ptr<tesk::Image>>> _outputs;
    bool _ready = false;
    unsigned int _gesture_mode = 0;
    unsigned int _model_id = 0;
    std::map<unsigned short, ZQLayerInfo*> _fc_layer_info;
    std::unique_ptr<ZQNetLoader> _loader;
    tesk::NetObserver* observer = nullptr;

private:
    using ShapeLists = std::vector<std::vector<shape3>>;

    bool readLayers(tesk::TexturePool* pool, tesk::ComputeProgramManager* manager,
                    ShapeLists& vvOutFtrShapes);
    bool addOperator(ZQLayerInfo& record, tesk::ComputeProgramManager* manager,
                     std::shared_ptr<tesk::Operator>& in_hand, ShapeLists& vvOutFtrShapes);
    bool createImages(const ShapeLists& vvOutFtrShapes, tesk::TexturePool* pool,
                      tesk::ComputeProgramManager* manager);
    bool gatherInputs(size_t index);
    std::shared_ptr<tesk::Image> feature(int id) const;
};

namespace {

/// The code of an operator for the record's kernel; -1 when the tables do not hold it.
int kernelCode(const ZQLayerInfo& info) {
    struct Kernel {
        int width;
        int height;
        int code;
    };
    const auto find = [](std::initializer_list<Kernel> kernels, int width, int height) {
        for (const Kernel& kernel : kernels) {
            if (kernel.width == width && kernel.height == height) return kernel.code;
        }
        return -1;
    };
    switch (info.type) {
        case ZQLayerType_Conv2D: {
            const auto& record = static_cast<const ZQLayerInfo_Conv2D&>(info);
            if (record.effective_groups() != 1)
                return find({{3, 3, 10}}, record.kernel_w, record.kernel_h);
            return find({{1, 1, 0},
                         {3, 1, 1},
                         {1, 3, 2},
                         {3, 3, 3},
                         {4, 4, 4},
                         {5, 1, 5},
                         {1, 5, 6},
                         {5, 5, 7},
                         {7, 1, 8},
                         {1, 7, 9}},
                        record.kernel_w, record.kernel_h);
        }
        case ZQLayerType_Conv2DTranspose: {
            const auto& record = static_cast<const ZQLayerInfo_Conv2DTranspose&>(info);
            return find({{3, 3, 11}, {2, 2, 12}, {7, 1, 13}}, record.kernel_w, record.kernel_h);
        }
        case ZQLayerType_DepthWiseConv2D: {
            const auto& record = static_cast<const ZQLayerInfo_DepthWiseConv2D&>(info);
            return find({{3, 3, 14}, {5, 5, 15}}, record.kernel_w, record.kernel_h);
        }
        case ZQLayerType_DepthWiseConv2DTranspose: {
            const auto& record = static_cast<const ZQLayerInfo_DepthWiseConv2DTranspose&>(info);
            return find({{3, 3, 16}}, record.kernel_w, record.kernel_h);
        }
        default:
            return -1;
    }
}

/// How the net treats a kind of record.
struct Kind {
    bool known = false;       ///< the tables hold the kind, if not each kernel
    int code = -1;            ///< of its operator
    bool allBottoms = false;  ///< or the first alone
};

Kind kindOf(const ZQLayerInfo& record) {
    switch (record.type) {
        case ZQLayerType_Conv2D:
        case ZQLayerType_Conv2DTranspose:
        case ZQLayerType_DepthWiseConv2D:
        case ZQLayerType_DepthWiseConv2DTranspose:
            return {true, kernelCode(record), false};
        case ZQLayerType_Pooling:
            return {true, 17, false};
        case ZQLayerType_ElementWiseOperator:
            return {true, 18, true};
        case ZQLayerType_Concatenate:
            return {true, 19, true};
        case ZQLayerType_Region:
            return {true, 21, false};
        case ZQLayerType_PixelShuffle:
            return {true, 22, false};
        case ZQLayerType_TensorReshape:
            return {true, 23, false};
        case ZQLayerType_TensorSqueeze:
            return {true, 24, false};
        case ZQLayerType_Upsampling:
            return {true, 25, false};
        case ZQLayerType_Activation:
            return {true, 26, false};
        case ZQLayerType_FullConnection:
            return {true, 27, false};
        default:
            return {};
    }
}

std::vector<int> bottomsOf(const ZQLayerInfo& record, bool all) {
    if (record.bottoms == nullptr || record.bottom_count == 0) return {};
    const int count = all ? std::min<int>(record.bottom_count, ZQ_MAX_BOTTOMS) : 1;
    return std::vector<int>(record.bottoms, record.bottoms + count);
}

/// An absolute size as a factor of the net's, which gives about that size back.
unsigned short factorOf(int size, int net) {
    return Tarno::float_to_half(static_cast<float>(size) / static_cast<float>(net));
}

/// The longer side lies along the longer side of the net. A square net, or two equal sizes, have no
/// longer side, and the shape stays without pixels.
shape3 squeezedShape(const tensor28& tensor, const ComputeProgramManager& manager) {
    const int larger = std::max(tensor.dims[1], tensor.dims[2]);
    const int smaller = std::min(tensor.dims[1], tensor.dims[2]);
    shape3 shape = {0, 0, tensor.dims[0]};
    if (larger == smaller) return shape;
    if (manager.netWidth < manager.netHeight) {
        shape.scale_x = factorOf(smaller, manager.netWidth);
        shape.scale_y = factorOf(larger, manager.netHeight);
    } else if (manager.netHeight < manager.netWidth) {
        shape.scale_x = factorOf(larger, manager.netWidth);
        shape.scale_y = factorOf(smaller, manager.netHeight);
    }
    return shape;
}

shape3 outputShape(const ZQLayerInfo& record, const ComputeProgramManager& manager) {
    switch (record.type) {
        case ZQLayerType_Region: {
            // The channels of a pixel lie side by side.
            const int slices = sliceCount(record.in_shape->channels);
            const float width = Tarno::half_to_float(record.in_shape->scale_x);
            return {Tarno::float_to_half(width * static_cast<float>(slices)),
                    record.in_shape->scale_y, 4};
        }
        case ZQLayerType_TensorReshape:
        case ZQLayerType_FullConnection: {
            const tensor28& tensor = static_cast<const ZQFreezedLayerInfo&>(record).out_tensor;
            return {factorOf(tensor.dims[0], manager.netWidth),
                    factorOf(tensor.dims[0], manager.netHeight), tensor.dims[1]};
        }
        case ZQLayerType_TensorSqueeze:
            return squeezedShape(static_cast<const ZQFreezedLayerInfo&>(record).out_tensor,
                                 manager);
        default:
            return *record.out_shape;
    }
}

bool faultOf(const ZQLayerInfo& record, const char* expected, const char* found) {
    Tarno::_LogError("Tarno", "layer %d (%s): expected %s, found %s", record.id,
                     zq_layer_type_name(record.type), expected, found);
    return false;
}

}  // namespace

void NetImpl::clear() {
    _bottom_index_vecs.clear();
    _top_index_vecs.clear();
    _image_ids.clear();
    _ops.clear();
    _features.clear();
    _inputs.clear();
    _outputs.clear();
    _ready = false;
}

bool NetImpl::setup(tesk::TexturePool* pool, tesk::ComputeProgramManager* manager) {
    _ready = false;
    _features.clear();
    _inputs.clear();
    _outputs.clear();
    ShapeLists vvOutFtrShapes;
    const bool made =
        readLayers(pool, manager, vvOutFtrShapes) && createImages(vvOutFtrShapes, pool, manager);
    if (made) {
        _ready = true;
    } else {
        clear();
    }
    _loader.reset();
    return made;
}

bool NetImpl::readLayers(tesk::TexturePool* pool, tesk::ComputeProgramManager* manager,
                         ShapeLists& vvOutFtrShapes) {
    const std::map<unsigned short, ZQLayerInfo*> records = _loader->getLayersInfo();
    std::shared_ptr<tesk::Operator> in_hand;
    for (const unsigned short id : _loader->getSequentialLayers()) {
        const auto found = records.find(id);
        if (found == records.end()) {
            Tarno::ReportAssertion("NULL", "net", __LINE__);
            return false;
        }
        ZQLayerInfo& record = *found->second;
        _image_ids.push_back(record.id);
        if (record.type == ZQLayerType_Input) {
            // An input truncates its size, every other feature rounds.
            const Extent extent = truncatedExtent(*record.out_shape, *manager);
            _features.push_back(std::make_shared<tesk::Image>(
                extent.height, extent.width, record.out_shape->channels, GL_RGBA16F, pool));
        } else if (record.type == ZQLayerType_TensorInput) {
            const tensor28& tensor = static_cast<const ZQFreezedLayerInfo&>(record).out_tensor;
            _features.push_back(std::make_shared<tesk::Image>(tensor.dims[0], tensor.dims[0],
                                                              tensor.dims[1], GL_RGBA16F, pool));
        } else if (!addOperator(record, manager, in_hand, vvOutFtrShapes)) {
            return false;
        }
    }
    return true;
}

bool NetImpl::addOperator(ZQLayerInfo& record, tesk::ComputeProgramManager* manager,
                          std::shared_ptr<tesk::Operator>& in_hand, ShapeLists& vvOutFtrShapes) {
    const Kind kind = kindOf(record);
    if (!kind.known) Tarno::_LogError("Tarno", "no referenced layer.");
    if (kind.code >= 0) {
        in_hand = createOperator(kind.code, manager);
    } else if (in_hand == nullptr || !in_hand->takes(record)) {
        return faultOf(record, "a kind and kernel that the engine has an operator for", "another");
    } else {
        // A kernel that the tables do not hold makes no operator of its own: the one of the layer
        // before is set up anew and runs at both places.
        faultOf(record, "a kernel that the engine has an operator for",
                "another; set up as the layer before");
    }
    _bottom_index_vecs.push_back(bottomsOf(record, kind.allBottoms));
    _top_index_vecs.push_back({record.id});
    in_hand->setup(&record);
    if (!in_hand->isSetUp()) return false;
    _ops.push_back(in_hand);
    vvOutFtrShapes.push_back({outputShape(record, *manager)});
    return true;
}

std::shared_ptr<tesk::Image> NetImpl::feature(int id) const {
    const bool known = id >= 0 && static_cast<size_t>(id) < _features.size();
    return known ? _features[static_cast<size_t>(id)] : nullptr;
}

bool NetImpl::gatherInputs(size_t index) {
    std::vector<std::shared_ptr<tesk::Image>> inputs;
    for (const int bottom : _bottom_index_vecs[index]) {
        inputs.push_back(feature(bottom));
        if (inputs.back() == nullptr) {
            Tarno::_LogError("Tarno",
                             "layer %d: expected a bottom among the layers before it, with the "
                             "inputs at the lowest ids, found %d",
                             _top_index_vecs[index][0], bottom);
            return false;
        }
    }
    if (inputs.empty()) {
        Tarno::_LogError("Tarno", "layer %d: expected a bottom, found none",
                         _top_index_vecs[index][0]);
        return false;
    }
    _inputs.push_back(std::move(inputs));
    return true;
}

bool NetImpl::createImages(const ShapeLists& vvOutFtrShapes, tesk::TexturePool* pool,
                           tesk::ComputeProgramManager* manager) {
    if (vvOutFtrShapes.empty()) {
        Tarno::_LogError("Tarno", "create iamges error : out feature shape data is empty.");
        return true;
    }
    if (_image_ids.empty()) {
        Tarno::_LogError("Tarno", "create images error : image id array is empty.");
        return true;
    }
    const int largest = *std::max_element(_image_ids.begin(), _image_ids.end());
    _features.resize(static_cast<size_t>(largest) + 1);
    // At most one texture for each image: a run then books nothing.
    pool->reserve(static_cast<int>(_image_ids.size()));
    _inputs.clear();
    _outputs.clear();
    for (size_t i = 0; i < vvOutFtrShapes.size(); ++i) {
        if (!gatherInputs(i)) return false;
        const bool matched = vvOutFtrShapes[i].size() == _top_index_vecs[i].size();
        TN_ASSERT(vvOutFtrShapes[i].size() == _top_index_vecs[i].size());
        if (!matched) return false;
        std::vector<std::shared_ptr<tesk::Image>> outputs;
        for (size_t j = 0; j < vvOutFtrShapes[i].size(); ++j) {
            const Extent extent = roundedExtent(vvOutFtrShapes[i][j], *manager);
            const int h = extent.height;
            const int w = extent.width;
            TN_ASSERT(h > 0 && w > 0);
            if (h <= 0 || w <= 0) {
                Tarno::_LogError("Tarno",
                                 "layer %d: expected an output of at least 1 x 1, found %d x %d",
                                 _top_index_vecs[i][j], w, h);
                return false;
            }
            const auto image = std::make_shared<tesk::Image>(h, w, vvOutFtrShapes[i][j].channels,
                                                             GL_RGBA16F, pool);
            _features[static_cast<size_t>(_top_index_vecs[i][j])] = image;
            outputs.push_back(image);
        }
        _outputs.push_back(std::move(outputs));
    }
    return true;
}

void NetImpl::addReads(size_t begin, size_t end) {
    for (size_t i = begin; i < end; ++i) {
        for (const int bottom : _bottom_index_vecs[i]) {
            _features[static_cast<size_t>(bottom)]->addReadCount();
        }
    }
}

void NetImpl::run(size_t begin, size_t end) {
    // A second file's operators stand behind those of the first without images of their own.
    end = std::min(end, _outputs.size());
    begin = std::min(begin, end);
    addReads(begin, end);
    for (size_t i = begin; i < end; ++i) {
        const int layer = _top_index_vecs[i][0];
        tesk::Image& output = *_outputs[i][0];
        if (observer != nullptr) observer->beforeOperator(static_cast<int>(i), layer, output);
        _ops[i]->forward(_inputs[i], _outputs[i]);
        if (observer != nullptr) observer->afterOperator(static_cast<int>(i), layer, output);
    }
}

NetObserver::~NetObserver() = default;

void NetObserver::beforeOperator(int, int, tesk::Image&) {}

void NetObserver::afterOperator(int, int, tesk::Image&) {}

Net::Net() : _impl(std::make_shared<NetImpl>()) {}

Net::Net(const Net& other) = default;

Net& Net::operator=(const Net& other) = default;

Net::~Net() = default;

bool Net::loadFile(const std::string& path) {
    if (_impl->_loader == nullptr) _impl->_loader = std::make_unique<ZQNetLoader>();
    if (!_impl->_loader->LoadFile(path.c_str(), false)) {
        _impl->_loader.reset();
        _impl->clear();
        return false;
    }
    _impl->_gesture_mode = _impl->_loader->getGestureMode();
    _impl->_model_id = _impl->_loader->getModelID();
    return true;
}

bool Net::setupNet(tesk::TexturePool* pool, tesk::ComputeProgramManager* manager) {
    if (_impl->_loader == nullptr) return false;
    if (pool == nullptr || manager == nullptr) {
        Tarno::_LogError("Tarno", "net: expected a texture pool and a program manager, found none");
        return false;
    }
    return _impl->setup(pool, manager);
}

bool Net::loadFromFile(const std::string& path, tesk::TexturePool* pool,
                       tesk::ComputeProgramManager* manager) {
    return loadFile(path) && setupNet(pool, manager);
}

bool Net::ready() const {
    return _impl->_ready;
}

void Net::setInputs(std::vector<std::shared_ptr<tesk::Image>>& images) {
    for (size_t i = 0; i < images.size(); ++i) {
        const bool fits = i < _impl->_features.size() && _impl->_features[i] != nullptr;
        if (!fits || images[i] == nullptr) {
            Tarno::_LogError("Tarno", "net: expected an image for each input layer, found %s at %d",
                             fits ? "none" : "one too many", static_cast<int>(i));
            continue;
        }
        *_impl->_features[i] = *images[i];
    }
    if (_impl->_inputs.empty()) return;
    std::vector<std::shared_ptr<tesk::Image>>& first = _impl->_inputs[0];
    const std::vector<int>& bottoms = _impl->_bottom_index_vecs[0];
    for (size_t i = 0; i < first.size(); ++i) {
        first[i] = _impl->_features[static_cast<size_t>(bottoms[i])];
    }
}

void Net::forward() {
    if (!_impl->_ready) {
        Tarno::_LogVerbose("Tarno", "Net not ready, please load first.");
        return;
    }
    _impl->run(0, _impl->_ops.size());
}

void Net::forward(int beg, int end) {
    const int count = static_cast<int>(_impl->_ops.size());
    // A negative end is a very large one here, and fails the assertion.
    const size_t opEnd = static_cast<size_t>(std::min(end, count));
    const bool sound = beg >= 0 && opEnd <= _impl->_ops.size();
    TN_ASSERT(beg >= 0 && opEnd <= _impl->_ops.size());
    if (!sound) return;
    if (!_impl->_ready) {
        Tarno::_LogVerbose("Tarno", "Net not ready, please load first.");
        return;
    }
    _impl->run(static_cast<size_t>(beg), opEnd);
}

std::shared_ptr<tesk::Image> Net::getOutputImage() {
    if (_impl->_ops.empty()) {
        Tarno::ReportAssertion("NULL", "net", __LINE__);
        return _impl->_features.empty() ? nullptr : _impl->_features.back();
    }
    return getFeature(_impl->_top_index_vecs.back()[0]);
}

bool Net::getOutputImage(std::vector<std::shared_ptr<tesk::Image>>& out) {
    for (const std::shared_ptr<tesk::Image>& feature : _impl->_features) {
        if (feature != nullptr && feature->textureId() != 0) out.push_back(feature);
    }
    return false;
}

std::shared_ptr<tesk::Image> Net::getFeature(int layer) const {
    const bool known = layer >= 0 && static_cast<size_t>(layer) < _impl->_features.size();
    return known ? _impl->_features[static_cast<size_t>(layer)] : nullptr;
}

void Net::setObserver(tesk::NetObserver* observer) {
    _impl->observer = observer;
}

int Net::operatorCount() const {
    return static_cast<int>(_impl->_ops.size());
}

int Net::operatorLayer(int index) const {
    const bool known = index >= 0 && index < operatorCount();
    return known ? _impl->_top_index_vecs[static_cast<size_t>(index)][0] : -1;
}

void Net::print() {
    Tarno::_LogVerbose("Tarno", "Net Struct:\n");
    for (const std::shared_ptr<tesk::Operator>& op : _impl->_ops) op->print();
}

std::map<unsigned short, ZQLayerInfo*> Net::getLayerInfo_fcNet() const {
    return _impl->_fc_layer_info;
}

unsigned int Net::getGestureMode() const {
    return _impl->_gesture_mode;
}

unsigned int Net::modelID() const {
    return _impl->_model_id;
}

}  // namespace tesk
