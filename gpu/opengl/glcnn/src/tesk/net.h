// A network on the GPU.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "glutil/image.h"
#include "types.h"

class ZQLayerInfo;

namespace tesk {

class ComputeProgramManager;
class NetImpl;
class TexturePool;

/// Hears of each operator of a net as it runs, on the thread that runs it.
class TN_API NetObserver {
public:
    virtual ~NetObserver();
    /// `index` counts the operators from 0 in run order, `layer` is the id in the model. Neither
    /// call may run the net. `output` need not hold a texture yet.
    virtual void beforeOperator(int index, int layer, tesk::Image& output);
    /// `output` holds its texture until the last of its readers has run: this is the moment to read
    /// it back. That `output` holds none says that the operator dispatched nothing.
    virtual void afterOperator(int index, int layer, tesk::Image& output);
};

/// A model file as a sequence of operators, with an image for every feature map.
///
/// Once `loadFile` and `setupNet`, or both in `loadFromFile`; then for each frame `setInputs`,
/// `forward`, `getOutputImage`. All with the context of pool and manager current, which both stay
/// the caller's and must outlive the net.
///
/// Sizes come from the model's relative shapes and the manager's `netWidth` and `netHeight`: set
/// these before `setupNet` where 256 x 256 is not the base size. An input of another size is the
/// caller's to resize.
///
/// Images take their textures from the pool at the first run and hand them on as the readers of
/// each are done, so that a run lives in a few. Behind a run only the outputs that no layer reads
/// hold one, for the client to read: the second run starts without these and may make as many
/// textures anew, later ones make none. From the second frame on `forward` takes nothing from the
/// heap; what the driver takes is its own affair.
///
/// Copies share one network.
class TN_API Net {
public:
    Net();
    Net(const Net& other);
    Net& operator=(const Net& other);
    virtual ~Net();

    /// Reads a model file. False when that fails; the net is then empty, also one that was ready.
    bool loadFile(const std::string& path);
    /// Makes the operators and their programs, then lets the file go: a second call gives false
    /// until `loadFile` has run again. False also for a layer that the engine has no operator for,
    /// a bottom that does not come before its layer, or a size that rounds to 0; one line in the
    /// log names the layer, and the net is empty.
    ///
    /// True does not say that every layer runs. A generator that refuses its record (a full
    /// connection of at most 4 inputs, groups that are not of 4 channels, fewer weights than the
    /// shapes ask for) or whose program the driver does not take logs one error line that names the
    /// layer; the layer then dispatches nothing, and its output stays as it was.
    ///
    /// The input layers must have the lowest ids. A net is meant to be set up once: a further
    /// file's operators stand behind those of the first.
    bool setupNet(tesk::TexturePool* pool, tesk::ComputeProgramManager* manager);
    bool loadFromFile(const std::string& path, tesk::TexturePool* pool,
                      tesk::ComputeProgramManager* manager);
    /// Whether `setupNet` succeeded.
    bool ready() const;

    /// Feature i names the same texture as `*images[i]` from now on, with its size, read count and
    /// pool. Raise an image's read count by one beforehand: otherwise the first run gives its
    /// texture back to the pool. Null pointers and images beyond the features are left out, with a
    /// log line.
    ///
    /// Image and feature are two owners of one texture, of which neither hears of the other: the
    /// first to give it back (its count at 0, `resize`, its end) frees it in the pool for both, and
    /// the other then reads and writes what may be another tensor's. Keep the image, its count
    /// raised, as long as the net runs on it.
    ///
    /// Features are counted in layer ids, not in inputs: with more images than the model has
    /// inputs, the further ones become the outputs of the first layers, which from then on write
    /// these textures, at these sizes.
    void setInputs(std::vector<std::shared_ptr<tesk::Image>>& images);
    void forward();
    /// Operators `beg` up to, not including, `opEnd`.
    void forward(int beg, int opEnd);

    /// The output of the last operator. Null for a net without features; fails an assertion on one
    /// without operators.
    std::shared_ptr<tesk::Image> getOutputImage();
    /// Appends every feature that holds a texture right now. False in every case: look at `out`.
    bool getOutputImage(std::vector<std::shared_ptr<tesk::Image>>& out);
    /// The feature of a layer id, input layers included; null when there is none.
    std::shared_ptr<tesk::Image> getFeature(int layer) const;

    /// Null, as it is at the start, for none. The observer must outlive the net or be taken out.
    void setObserver(tesk::NetObserver* observer);
    /// Operators in run order, and the layer of each.
    int operatorCount() const;
    int operatorLayer(int index) const;

    /// Logs the structure at verbose level.
    void print();
    /// Empty: no set-up fills it.
    std::map<unsigned short, ZQLayerInfo*> getLayerInfo_fcNet() const;
    unsigned int getGestureMode() const;
    unsigned int modelID() const;

private:
    std::shared_ptr<NetImpl> _impl;
};

}  // namespace tesk
