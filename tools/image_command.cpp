#include "image_command.h"

#include <GL/glew.h>
#include <tarno/gpu.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <vector>

#include "composite.h"
#include "errors.h"
#include "files.h"
#include "gpu_session.h"
#include "library_reports.h"
#include "picture.h"

namespace tool {

const char* const image_operations =
    "bgr2rgb, yuv2rgb, flip-h, flip-v, rotate90, rotate180, rotate270, resize, box, gaussian, "
    "guided or pyramid";

bool is_image_operation(const std::string& name) {
    static const char* const names[] = {"bgr2rgb",   "yuv2rgb",   "flip-h", "flip-v",
                                        "rotate90",  "rotate180", "rotate270", "resize",
                                        "box",       "gaussian",  "guided", "pyramid"};
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

namespace {

using ImagePointer = std::shared_ptr<tesk::Image>;

/// More pixels than this in one direction are refused: every OpenGL 4.3 takes as many.
constexpr int most_texels = 16384;

/// The library leaves GL's errors to its client, and a step that GL refused leaves a picture of what
/// was in memory before.
void expect_no_gl_error(const std::string& expected) {
    const GLenum error = glGetError();
    if (error == GL_NO_ERROR) return;
    char code[16];
    std::snprintf(code, sizeof(code), "0x%04x", error);
    throw CommandError(expected + ", found the GL error " + code);
}

/// The pictures of one command on the GPU. Each image is held by a read count of its own.
class Pictures {
public:
    explicit Pictures(tesk::TexturePool& pool) : pool(pool) {}

    ImagePointer make(int w, int h) const {
        if (w > most_texels || h > most_texels) {
            throw CommandError("picture: expected at most " + std::to_string(most_texels) +
                               " pixels in a direction, found " + std::to_string(w) + " x " +
                               std::to_string(h));
        }
        const ImagePointer image = std::make_shared<tesk::Image>(h, w, 4, GL_RGBA16F, &pool);
        image->addReadCount();
        // Asked at once: a step over pixels that are not there would take its time.
        image->texture();
        expect_no_gl_error("picture: expected a texture of " + std::to_string(w) + " x " +
                           std::to_string(h) + " pixels");
        return image;
    }

    /// Components 0 to 1; grey in the first three.
    ImagePointer upload(const Picture& picture) const {
        const ImagePointer image = make(picture.w, picture.h);
        const size_t count = static_cast<size_t>(picture.w) * static_cast<size_t>(picture.h);
        const size_t channels = static_cast<size_t>(picture.channels);
        std::vector<float> texels(4 * count, 0.0f);
        for (size_t i = 0; i < count; ++i) {
            for (size_t c = 0; c < 3; ++c) {
                texels[4 * i + c] =
                    static_cast<float>(picture.pixels[i * channels + std::min(c, channels - 1)]) /
                    255.0f;
            }
        }
        image->update(reinterpret_cast<const char*>(texels.data()), 0);
        return image;
    }

    static FloatMap download(tesk::Image& image, int channels) {
        FloatMap map;
        map.c = channels;
        map.w = image.width();
        map.h = image.height();
        const size_t count = static_cast<size_t>(map.w) * static_cast<size_t>(map.h);
        std::vector<float> texels(4 * count);
        image.copyTexToMemry(texels.data(), 0);
        for (int c = 0; c < channels; ++c) {
            for (size_t i = 0; i < count; ++i)
                map.values.push_back(texels[4 * i + static_cast<size_t>(c)]);
        }
        return map;
    }

private:
    tesk::TexturePool& pool;
};

/// A raw frame: a plane of w x h bytes, then two of half the size in both directions, rounded up.
std::vector<Picture> read_yuv(const std::string& path, const Size& size) {
    const int w = size.w, h = size.h;
    const int half_w = (w + 1) / 2, half_h = (h + 1) / 2;
    const int64_t bytes = int64_t{w} * h + 2 * int64_t{half_w} * half_h;
    const std::string frame = whole_file(path, bytes + 1);
    if (static_cast<int64_t>(frame.size()) != bytes) {
        throw CommandError(path + ": expected a raw 4:2:0 frame of " + std::to_string(w) + " x " +
                           std::to_string(h) + " pixels, " + std::to_string(bytes) +
                           " bytes, found " + std::to_string(size_of_regular_file(path)));
    }
    std::vector<Picture> planes;
    size_t at = 0;
    for (const auto& [plane_w, plane_h] :
         {std::pair<int, int>(w, h), {half_w, half_h}, {half_w, half_h}}) {
        Picture plane;
        plane.w = plane_w;
        plane.h = plane_h;
        plane.channels = 1;
        const size_t count = static_cast<size_t>(plane_w) * static_cast<size_t>(plane_h);
        plane.pixels.assign(frame.begin() + static_cast<std::ptrdiff_t>(at),
                            frame.begin() + static_cast<std::ptrdiff_t>(at + count));
        at += count;
        planes.push_back(std::move(plane));
    }
    return planes;
}

/// Puts `part` into `whole` with its first pixel at (x, y).
void place(const FloatMap& part, int x, int y, FloatMap& whole) {
    for (int row = 0; row < part.h; ++row) {
        for (int column = 0; column < part.w; ++column) {
            whole.values[static_cast<size_t>(y + row) * static_cast<size_t>(whole.w) +
                         static_cast<size_t>(x + column)] =
                part.values[static_cast<size_t>(row) * static_cast<size_t>(part.w) +
                            static_cast<size_t>(column)];
        }
    }
}

/// The base on the left, the reduced levels below each other beside it.
FloatMap pyramid_of(const ImageCommand& command, const ImagePointer& source, GpuSession& session,
                    const Pictures& pictures) {
    tesk::Pyramid pyramid(source->width(), source->height(), command.levels, &session.pool,
                          &session.manager);
    pyramid.buildPyramid(source);
    std::vector<FloatMap> levels;
    ImagePointer level = pyramid.base();
    levels.push_back(Pictures::download(*level, 1));
    while (static_cast<int>(levels.size()) < command.levels &&
           (level->width() > 1 || level->height() > 1)) {
        const ImagePointer smaller =
            pictures.make((level->width() + 1) / 2, (level->height() + 1) / 2);
        pyramid.GaussianPyramid_sampler(level, smaller);
        levels.push_back(Pictures::download(*smaller, 1));
        level = smaller;
    }
    FloatMap whole;
    whole.c = 1;
    whole.w = levels[0].w + (levels.size() > 1 ? levels[1].w : 0);
    int column_height = 0;
    for (size_t i = 1; i < levels.size(); ++i)
        column_height += levels[i].h;
    whole.h = std::max(levels[0].h, column_height);
    whole.values.assign(static_cast<size_t>(whole.w) * static_cast<size_t>(whole.h), 0.0f);
    place(levels[0], 0, 0, whole);
    int y = 0;
    for (size_t i = 1; i < levels.size(); ++i) {
        place(levels[i], levels[0].w, y, whole);
        y += levels[i].h;
    }
    return whole;
}

FloatMap guided(const ImageCommand& command, const ImagePointer& mask, GpuSession& session,
                const Pictures& pictures) {
    const ImagePointer guide = pictures.upload(read_picture(command.guide, 3));
    const ImagePointer out = pictures.make(guide->width(), guide->height());
    tesk::FastGuidedFilter filter(command.radius, static_cast<float>(command.subsampling),
                                  static_cast<float>(command.eps), &session.pool,
                                  &session.manager);
    filter.fastGuidedFilterEncode(guide, mask, out);
    return Pictures::download(*out, 1);
}

FloatMap worked(const ImageCommand& command, GpuSession& session) {
    const Pictures pictures(session.pool);
    tesk::MatrixColor transforms(&session.pool, &session.manager);
    const std::string& op = command.op;
    if (op == "yuv2rgb") {
        const std::vector<Picture> planes = read_yuv(command.input, *command.size);
        const ImagePointer out = pictures.make(planes[0].w, planes[0].h);
        transforms.ConvertYUV2RGB(pictures.upload(planes[0]), pictures.upload(planes[1]),
                                  pictures.upload(planes[2]), out);
        return Pictures::download(*out, 3);
    }
    ImagePointer in = pictures.upload(read_picture(command.input, 3));
    const int w = in->width(), h = in->height();
    if (op == "pyramid") return pyramid_of(command, in, session, pictures);
    if (op == "guided") return guided(command, in, session, pictures);

    const bool turned = op == "rotate90" || op == "rotate270";
    ImagePointer out = op == "resize" ? pictures.make(command.size->w, command.size->h)
                       : turned      ? pictures.make(h, w)
                                     : pictures.make(w, h);
    if (op == "bgr2rgb") transforms.ConvertBGR2RGB(in, out);
    if (op == "flip-h") transforms.Flip_Horizontal(in, out);
    if (op == "flip-v") transforms.Flip_Vertical(in, out);
    if (op == "rotate90") transforms.Rotate90(in, out);
    if (op == "rotate180") transforms.Rotate180(in, out);
    if (op == "rotate270") transforms.Rotate270(in, out);
    if (op == "resize") transforms.ResizeImage(in, out);
    if (op == "box") {
        tesk::BoxFilter(command.radius, GL_RGBA16F, &session.pool, &session.manager)
            .boxFilterEncode(in, out);
    }
    if (op == "gaussian") {
        tesk::GaussianFilter(GL_RGBA16F, &session.pool, &session.manager)
            .gaussianFliterEncode(in, out);
    }
    return Pictures::download(*out, 3);
}

}  // namespace

void image(const ImageCommand& command) {
    OutputFiles files;
    for (const std::string& input : {command.input, command.guide, command.background}) {
        files.keep(input);
    }
    files.expect_apart(command.output);
    files.expect_apart(command.composite);
    for (const std::string& output : {command.output, command.composite}) {
        if (!output.empty() && extension_of(output) != ".png") {
            throw CommandError(output + ": expected a .png file for the result, found \"" +
                               extension_of(output) + "\"");
        }
    }
    LibraryReports reports(command.verbose);
    GpuSession session(GpuOptions(), reports);
    session.manager.initProgramBinary(tesk::BinFileInfo(), &session.manager);
    const FloatMap result = worked(command, session);
    if (!reports.error().empty()) {
        throw CommandError(command.op + ": expected the GPU to do it, found: " + reports.error());
    }
    expect_no_gl_error(command.op + ": expected the GPU to do it");
    files.write(command.output, png_bytes(picture_of(result)));
    if (!command.composite.empty()) {
        const Picture guide = read_picture(command.guide, 3);
        const Picture background = background_of(command.background, guide.w, guide.h);
        files.write(command.composite, png_bytes(composite_of(guide, background, result)));
    }
    if (!command.composite.empty()) {
        std::printf("wrote %s: %d x %d pixels\n", command.composite.c_str(), result.w, result.h);
    }
    std::printf("wrote %s: %d x %d pixels, %s\n", command.output.c_str(), result.w, result.h,
                session.device().c_str());
    files.commit();
}

}  // namespace tool
